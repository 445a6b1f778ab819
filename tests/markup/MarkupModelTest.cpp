// Compares CMarkup with a plain tree: both get the same random changes; text and structure are compared after each.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "markup/ElemPosTree.h"
#include "markup/Markup.h"
#include "markup/TokenPos.h"
#include "tests/markup/Outline.h"
#include "tests/support/Support.h"

namespace {

using qx::test::Outline;
using qx::test::Records;
using Random = std::mt19937_64;

// --- The plain tree ---

struct Node;

// A piece of an element's content: text, or an element.
struct Item {
  std::string text;
  std::unique_ptr<Node> node;
};

struct Node {
  std::string name;
  std::string attributes;  // the text after the name
  bool empty = true;       // <a/>
  bool no_end = false;     // <a>
  std::vector<Item> items;
  Node* parent = nullptr;

  std::string Text() const {
    std::string text = "<" + name + attributes + (empty ? "/>" : ">");
    if (empty || no_end) return text;
    return text + Content() + "</" + name + ">";
  }
  std::string Content() const {
    std::string text;
    for (const Item& item : items) text += item.node ? item.node->Text() : item.text;
    return text;
  }
  std::vector<Node*> Children() const {
    std::vector<Node*> children;
    for (const Item& item : items) {
      if (item.node) children.push_back(item.node.get());
    }
    return children;
  }
  std::size_t IndexOf(const Node* child) const {
    std::size_t index = 0;
    while (items[index].node.get() != child) ++index;
    return index;
  }
  // Joins adjacent texts and removes empty ones.
  void Join() {
    std::vector<Item> joined;
    for (Item& item : items) {
      if (!item.node && item.text.empty()) continue;
      if (!item.node && !joined.empty() && !joined.back().node) {
        joined.back().text += item.text;
      } else {
        joined.push_back(std::move(item));
      }
    }
    items = std::move(joined);
  }
};

std::string OutlineOf(const Node& node) {
  std::string text;
  for (const Node* child : node.Children()) {
    if (!text.empty()) text += ',';
    text += child->name + (child->no_end ? "!" : "");
    const std::string below = OutlineOf(*child);
    if (!below.empty()) text += "(" + below + ")";
  }
  return text;
}

std::string Escaped(const std::string& text, bool quotes) {
  std::string out;
  for (const char c : text) {
    if (c == '&') {
      out += "&amp;";
    } else if (c == '<') {
      out += "&lt;";
    } else if (c == '>') {
      out += "&gt;";
    } else if (quotes && c == '"') {
      out += "&quot;";
    } else if (quotes && c == '\'') {
      out += "&apos;";
    } else {
      out += c;
    }
  }
  return out;
}

std::string InCData(std::string text) {
  for (std::size_t at = 0; (at = text.find("]]>", at)) != std::string::npos; at += 15) {
    text.replace(at, 3, "]]]]><![CDATA[>");
  }
  return "<![CDATA[" + text + "]]>";
}

std::string DataText(const std::string& data, int flags) {
  return (flags & CMarkup::kAddCData) != 0 ? InCData(data) : Escaped(data, (flags & CMarkup::kEscapeQuotes) != 0);
}

// Inserts a node after `previous` (null: after the last child). Returns the new node, or null if it is refused.
Node* InsertInto(Node& parent, Node* previous, const std::string& name, const std::string& data, int flags, bool root) {
  if ((flags & CMarkup::kAddNoEnd) != 0 && !data.empty()) return nullptr;
  if (parent.no_end) return nullptr;
  const std::string line = (flags & CMarkup::kAddNoLines) != 0 ? "" : "\n";
  auto node = std::make_unique<Node>();
  Node* const added = node.get();
  node->name = name;
  node->parent = &parent;
  node->no_end = (flags & CMarkup::kAddNoEnd) != 0;
  node->empty = data.empty() && !node->no_end;
  if (node->empty && (flags & CMarkup::kAddSpaceSlash) != 0) node->attributes = " ";
  if (!data.empty()) node->items.push_back({DataText(data, flags), nullptr});

  const std::vector<Node*> children = parent.Children();
  if (previous == nullptr && !children.empty()) previous = children.back();
  std::size_t at = 0;
  if (previous != nullptr) {
    at = parent.IndexOf(previous) + 1;
    if (at < parent.items.size() && !parent.items[at].node) {
      const std::string text = parent.items[at].text;
      const std::size_t white = std::min(text.find_first_not_of(" \t\r\n"), text.size());
      parent.items[at].text = text.substr(0, white);
      parent.items.insert(parent.items.begin() + static_cast<std::ptrdiff_t>(at) + 1,
                          Item{text.substr(white), nullptr});
      ++at;
    }
  } else if (root) {
    at = parent.items.size();
  } else if (parent.empty) {
    parent.empty = false;
    parent.items.push_back({line, nullptr});
    at = 1;
  }
  parent.items.insert(parent.items.begin() + static_cast<std::ptrdiff_t>(at), Item{line, nullptr});
  parent.items.insert(parent.items.begin() + static_cast<std::ptrdiff_t>(at), Item{"", std::move(node)});
  parent.Join();
  return added;
}

// --- Both at once ---

class Pair {
 public:
  explicit Pair(Random& random) : random_(random) {}

  // A random start: nothing, a declaration, or a small document.
  void Begin() {
    switch (Pick(3)) {
      case 0:
        break;
      case 1:
        model_.items.push_back({"<?xml version=\"1.0\"?>\n", nullptr});
        break;
      default:
        Node* const root = InsertInto(model_, nullptr, "r", "", CMarkup::kAddNoLines, true);
        root->empty = Pick(2) == 0;
        if (!root->empty) root->items.push_back({Pick(2) == 0 ? " \n text " : "<!-- c -->", nullptr});
    }
    markup_.SetDoc(model_.Content());
  }

  void Step() {
    switch (Pick(12)) {
      case 0:
      case 1:
        return Add();
      case 2:
      case 3:
      case 4:
        return AddChild();
      case 5:
      case 6:
        return SetAttribute();
      case 7:
        return SetData();
      case 8:
        return Pick(3) == 0 ? Remove() : SetChildData();
      default:
        return Move();
    }
  }

  void Check() const {
    ASSERT_EQ(markup_.GetDoc(), model_.Content());
    ASSERT_EQ(Outline(markup_), OutlineOf(model_));
    std::string why;
    ASSERT_TRUE(markup_.CheckInvariants(&why)) << why << "\n" << markup_.GetDoc();
    ASSERT_EQ(markup_.GetTagName(), main_ == nullptr ? "" : main_->name);
    ASSERT_EQ(markup_.GetChildTagName(), child_ == nullptr ? "" : child_->name);
    // If an element without end tag has the name of its parent, a new parse may use the parent's end tag for it. So the
    // result of a new parse may differ.
    if (is_ill_formed_) {
      ASSERT_FALSE(markup_.IsWellFormed());
      return;
    }
    const CMarkup again(markup_.GetDoc());
    ASSERT_EQ(Records(markup_), Records(again)) << markup_.GetDoc();
    ASSERT_EQ(markup_.IsWellFormed(), again.IsWellFormed()) << markup_.GetDoc();
  }

 private:
  std::size_t Pick(std::size_t count) { return random_() % count; }
  std::string Name() { return std::string(1 + Pick(3), static_cast<char>('a' + Pick(4))); }
  std::string Data() {
    static const char* const kData[] = {"", "x", "a<b", "]]>", "&amp;", "\"q'", "long text of some length", "]]]>&"};
    return kData[Pick(std::size(kData))];
  }
  int Flags() {
    int flags = 0;
    if (Pick(4) == 0) flags |= CMarkup::kAddCData;
    if (Pick(3) == 0) flags |= CMarkup::kAddNoLines;
    if (Pick(4) == 0) flags |= CMarkup::kAddSpaceSlash;
    if (Pick(60) == 0) flags |= CMarkup::kAddNoEnd;
    if (Pick(4) == 0) flags |= CMarkup::kEscapeQuotes;
    return flags;
  }

  void Add() {
    const std::string name = Name();
    const std::string data = Data();
    const int flags = Flags();
    Node* const added = InsertInto(*parent_, main_, name, data, flags, parent_ == &model_);
    EXPECT_EQ(markup_.AddElem(name.c_str(), data.c_str(), flags), added != nullptr);
    if (added == nullptr) return;
    main_ = added;
    child_ = nullptr;
    is_ill_formed_ = is_ill_formed_ || added->no_end;
  }

  void AddChild() {
    const std::string name = Name();
    const std::string data = Data();
    const int flags = Flags();
    Node* const added = main_ == nullptr ? nullptr : InsertInto(*main_, child_, name, data, flags, false);
    EXPECT_EQ(markup_.AddElem(name.c_str(), data.c_str(), flags | CMarkup::kAddChild), added != nullptr);
    if (added == nullptr) return;
    child_ = added;
    is_ill_formed_ = is_ill_formed_ || added->no_end;
  }

  void SetAttribute() {
    const std::string name = Name();
    const std::string value = Data();
    EXPECT_EQ(markup_.SetAttrib(name.c_str(), value.c_str()), main_ != nullptr);
    if (main_ == nullptr) return;
    const std::string begin = " " + name + "=\"";
    const std::size_t at = main_->attributes.find(begin);
    if (at == std::string::npos) {
      main_->attributes += begin + Escaped(value, true) + "\"";
    } else {
      const std::size_t from = at + begin.size();
      main_->attributes.replace(from, main_->attributes.find('"', from) - from, Escaped(value, true));
    }
    EXPECT_EQ(markup_.GetAttrib(name.c_str()), value);
  }

  static bool Fill(Node* node, const std::string& data, int flags) {
    if (node == nullptr || node->no_end || !node->Children().empty()) return false;
    node->empty = false;
    node->items.clear();
    node->items.push_back({DataText(data, flags), nullptr});
    node->Join();
    return true;
  }

  void SetData() {
    const std::string data = Data();
    const int flags = Flags();
    if (Pick(3) == 0) return WriteData(data);
    EXPECT_EQ(markup_.SetData(data.c_str(), flags), Fill(main_, data, flags));
  }

  // Sets CDATA through a writer, byte by byte. The writer may report that the data has no "]]>".
  void WriteData(const std::string& data) {
    const bool known_harmless = data.find(']') == std::string::npos && Pick(2) == 0;
    const bool written = markup_.SetCDataBy([&](std::string& text) {
      for (const char c : data) text += c;
      return !known_harmless;
    });
    EXPECT_EQ(written, Fill(main_, data, CMarkup::kAddCData));
  }

  void SetChildData() {
    const std::string data = Data();
    const int flags = Flags();
    const bool filled = Fill(child_, data, flags);
    EXPECT_EQ(markup_.SetChildData(std::string_view(data), flags), filled);
    if (filled) {
      EXPECT_EQ(markup_.GetChildData(), data);
    }
  }

  Node* Cut(Node* node) {
    Node& parent = *node->parent;
    const std::vector<Node*> children = parent.Children();
    Node* previous = nullptr;
    for (Node* child : children) {
      if (child == node) break;
      previous = child;
    }
    parent.items.erase(parent.items.begin() + static_cast<std::ptrdiff_t>(parent.IndexOf(node)));
    parent.Join();
    return previous;
  }

  void Remove() {
    const bool child = Pick(2) == 0;
    Node* const node = child ? child_ : main_;
    EXPECT_EQ(child ? markup_.RemoveChildElem() : markup_.RemoveElem(), node != nullptr);
    if (node == nullptr) return;
    Node* const previous = Cut(node);
    if (!child) main_ = previous;
    child_ = child ? previous : nullptr;
  }

  void Move() {
    switch (Pick(6)) {
      case 0:
        markup_.ResetPos();
        parent_ = &model_;
        main_ = child_ = nullptr;
        return;
      case 1:
        EXPECT_EQ(markup_.IntoElem(), main_ != nullptr);
        if (main_ == nullptr) return;
        parent_ = main_;
        main_ = child_;
        child_ = nullptr;
        return;
      case 2:
        EXPECT_EQ(markup_.OutOfElem(), parent_ != &model_);
        if (parent_ == &model_) return;
        child_ = main_;
        main_ = parent_;
        parent_ = main_->parent;
        return;
      case 3: {
        Node* const found = main_ == nullptr ? nullptr : NextAfter(*main_, child_);
        if (main_ == nullptr) return;
        EXPECT_EQ(markup_.FindChildElem(), found != nullptr);
        if (found != nullptr) child_ = found;
        return;
      }
      default: {
        Node* const found = NextAfter(*parent_, main_);
        EXPECT_EQ(markup_.FindElem(), found != nullptr);
        if (found == nullptr) return;
        main_ = found;
        child_ = nullptr;
      }
    }
  }

  static Node* NextAfter(const Node& parent, const Node* node) {
    bool passed = node == nullptr;
    for (Node* child : parent.Children()) {
      if (passed) return child;
      passed = child == node;
    }
    return nullptr;
  }

  Random& random_;
  Node model_;
  Node* parent_ = &model_;
  Node* main_ = nullptr;
  Node* child_ = nullptr;
  bool is_ill_formed_ = false;  // an element without end tag was added; removing it again does not change this
  CMarkup markup_;
};

TEST(MarkupModel, RandomChangesGiveTheSameAsInAPlainTree) {
  Random random(qx::test::Seed("MarkupModel"));
  for (int document = 0; document < 1000; ++document) {
    Pair pair(random);
    pair.Begin();
    for (int step = 0; step < 25; ++step) {
      pair.Step();
      pair.Check();
      if (HasFailure()) FAIL() << "document " << document << ", step " << step;
    }
  }
}

// --- Recovery in plain single steps ---

struct PlainElement {
  std::string name;
  std::size_t start = 0;
  bool unended = false;
  bool fault = false;
  std::vector<PlainElement*> children;
  PlainElement* parent = nullptr;
};

class PlainParser {
 public:
  explicit PlainParser(const std::string& text) : text_(text) {
    TokenPos token(text_);
    for (NodeType type = token.ParseNode(); type != NodeType::kEnd; type = token.ParseNode()) Take(type, token);
    while (!open_.empty()) CloseUnended(text_.size());
    if (root_.children.empty() && !text_.empty()) Note("no_root_element", "", kNone, kNone);
    if (root_.children.size() > 1) Note("root_has_sibling", "", kNone, kNone);
  }

  std::string Outline() const { return Outline(root_); }
  const std::string& Results() const { return results_; }

 private:
  static constexpr std::size_t kNone = std::string::npos;

  void Take(NodeType type, const TokenPos& token) {
    if (type == NodeType::kStartTag || type == NodeType::kEmptyTag) {
      elements_.push_back(std::make_unique<PlainElement>());
      PlainElement* const element = elements_.back().get();
      element->name = token.name;
      element->start = token.start;
      element->parent = Current();
      Current()->children.push_back(element);
      if (type == NodeType::kStartTag) open_.push_back(element);
    }
    if (type == NodeType::kEndTag) TakeEndTag(token);
    if (type == NodeType::kFault) {
      static const char* const kNames[] = {"",
                                           "first_tag_syntax",
                                           "exclamation_tag_syntax",
                                           "doctype_tag_syntax",
                                           "comment_tag_syntax",
                                           "cdata_section_syntax",
                                           "unterminated_tag_syntax"};
      Current()->fault = true;
      Note(kNames[static_cast<std::size_t>(token.fault)], "", token.start, kNone);
    }
  }

  void TakeEndTag(const TokenPos& token) {
    const std::string name(token.name);
    for (std::size_t depth = open_.size(); depth-- > 0;) {
      const std::string& stored = open_[depth]->name;
      const std::string follows = stored.substr(std::min(name.size(), stored.size()), 1);
      if (stored.substr(0, name.size()) != name) continue;
      if (!follows.empty() && std::string("\0 /=[]", 6).find(follows) == std::string::npos) continue;
      while (open_.size() > depth + 1) CloseUnended(token.start + 1);
      open_.pop_back();
      return;
    }
    Current()->fault = true;
    Note("lone_end_tag", name, token.start, kNone);
  }

  PlainElement* Current() { return open_.empty() ? &root_ : open_.back(); }

  // The innermost open element: its children become its following siblings.
  void CloseUnended(std::size_t expected_at) {
    PlainElement* const element = open_.back();
    open_.pop_back();
    PlainElement* const parent = element->parent;
    element->unended = true;
    parent->fault = parent->fault || element->fault;
    element->fault = false;
    for (PlainElement* child : element->children) {
      child->parent = parent;
      parent->children.push_back(child);
    }
    element->children.clear();
    Note("unended_start_tag", element->name, element->start, expected_at);
  }

  void Note(const std::string& name, const std::string& tag, std::size_t offset, std::size_t offset2) {
    if (results_.size() > 999) return;
    results_ += "<" + name;
    if (!tag.empty()) results_ += " tagname=\"" + Escaped(tag, true) + "\"";
    if (offset != kNone) results_ += " offset=\"" + std::to_string(offset) + "\"";
    if (offset2 != kNone) results_ += " offset2=\"" + std::to_string(offset2) + "\"";
    results_ += "/>";
  }

  static std::string Outline(const PlainElement& element) {
    std::string text;
    for (const PlainElement* child : element.children) {
      if (!text.empty()) text += ',';
      text += child->name + (child->unended ? "!" : "") + (child->fault ? "?" : "");
      const std::string below = Outline(*child);
      if (!below.empty()) text += "(" + below + ")";
    }
    return text;
  }

  std::string text_;
  std::string results_;
  PlainElement root_;
  std::vector<PlainElement*> open_;
  std::vector<std::unique_ptr<PlainElement>> elements_;
};

std::string RandomTags(Random& random) {
  static const char* const kPieces[] = {"<a>",     "<b>",       "<c>",   "</a>",   "</b>",   "</c>",   "</d>",
                                        "<a/>",    "<b x='1'>", "<a=1>", "</a=1>", "<b[2]>", "text",   "<a/></b>",
                                        "<a></a>", "<!-- -->",  " < ",   "<!",     "<![C",   "<c><a>", "</a></c>"};
  std::string text;
  const std::size_t count = random() % 30;
  for (std::size_t i = 0; i < count; ++i) text += kPieces[random() % std::size(kPieces)];
  return text;
}

TEST(MarkupModel, RecoveryGivesTheSameAsClosingElementsOneByOne) {
  Random random(qx::test::Seed("Recovery"));
  for (int i = 0; i < 8000; ++i) {
    const std::string text = RandomTags(random);
    const CMarkup markup(text);
    const PlainParser plain(text);
    ASSERT_EQ(Outline(markup), plain.Outline()) << text;
    ASSERT_EQ(markup.GetResult(), plain.Results()) << text;
    ASSERT_EQ(markup.IsWellFormed(), !text.empty() && plain.Results().empty()) << text;
    std::string why;
    ASSERT_TRUE(markup.CheckInvariants(&why)) << text << ": " << why;
  }
}

// There is no model of changed faulty documents, so the test checks only that records and text agree.
TEST(MarkupModel, RecordsAgreeWithTheTextWhenAFaultyDocumentIsChanged) {
  Random random(qx::test::Seed("Changes"));
  for (int i = 0; i < 3000; ++i) {
    CMarkup markup(RandomTags(random));
    for (int step = 0; step < 12; ++step) {
      const std::string before = markup.GetDoc();
      bool changed = true;
      switch (random() % 8) {
        case 0:
          changed = markup.AddElem("n", "d");
          break;
        case 1:
          changed = markup.AddChildElem("m");
          break;
        case 2:
          changed = markup.SetAttrib("x", static_cast<int>(random() % 1000));
          break;
        case 3:
          changed = markup.SetData("data", random() % 2 == 0 ? CMarkup::kAddCData : 0);
          break;
        case 4:
          changed = markup.RemoveElem();
          break;
        case 5:
          (void)markup.IntoElem();
          break;
        case 6:
          (void)markup.OutOfElem();
          break;
        default:
          (void)markup.FindElem(random() % 2 == 0 ? "//a" : nullptr);
      }
      if (!changed) {
        ASSERT_EQ(markup.GetDoc(), before);
      }
      std::string why;
      ASSERT_TRUE(markup.CheckInvariants(&why)) << before << " => " << markup.GetDoc() << ": " << why;
    }
  }
}

}  // namespace
