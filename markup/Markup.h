// CMarkup: one XML document, held as its serialised text, with a tree of element positions over it.
//
// The text is the only copy of the content. Reading cuts pieces out of it; every change is spliced into it at once, so
// that GetDoc always is the document. Elements are known by 32-bit indices into 32-byte records (ElemPosTree.h) that
// hold offsets. docs/markup.md tells what the parser accepts, how it recovers and where new text lands.
//
// Deliberately not here: reading or writing files piecewise, stepping through nodes that are no elements, saved
// positions, namespaces, and anything a document type declaration could define or fetch.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>

// A read-only C string; a null pointer means "none".
using MCD_CSTR = const char*;

class ElemPosTree;
class PathPos;
struct ElemPos;
struct FilePos;
struct PathStep;
struct SavedPosMapArray;
namespace qx::markup {
class Pieces;
}

// A row of BomTable; the last one is all zeros.
struct BomTableRow {
  unsigned char bytes[4];
  int count;
  const char* encoding;
  int flag;
};

// An XML document with a current position in it.
//
// The position is three elements: the parent, the main element and, below that one, the child. 0 stands for the
// document (as a parent) or for none. Operations named ...Child... work on the child position, the others on the main
// position.
//
// Threads: none of its own. An object belongs to one thread at a time; the static members may be called by any thread.
// Owns: the text and the records.
// Failure: an operation that returns false changed nothing. Memory that runs out is std::bad_alloc; the document is
// then as it was before the call, except that SetDoc leaves it empty.
// Limits: a start tag below 4 MiB, a tag name of at most 1,020 bytes, levels 0 to 65,535, a document below 4 GiB. Over
// one of them a parse is not well formed and a change is refused.
class CMarkup {
 public:
  // For adding elements, setting data and attributes, and escaping. Bits may be combined.
  enum MarkupFlags : int {
    kAddCData = 1,          // data goes into a CDATA section:     <a><![CDATA[1<2]]></a>
    kAddNoLines = 2,        // no line feed behind the element
    kAddSpaceSlash = 4,     // a space in an empty element:        <a />
    kKeepReferences = 8,    // what is a reference stays one:      &lt; => &lt;, not &amp;lt;
    kAddNoEnd = 16,         // a start tag alone:                  <a>
    kEscapeQuotes = 0x100,  // " and ' are escaped, too
    kAddChild = 0x4000,     // AddElem works as AddChildElem
  };

  // Of the document. The file modes are not built, so their bits never stay set.
  enum DocFlags : int {
    kDocIgnoreCase = 8,  // names differing in the case of A-Z are the same
    kDocReadFile = 16,
    kDocWriteFile = 32,
  };

  // For UnescapeText: white space of the text itself, not what a reference stands for.
  enum UnescapeFlags : int {
    kTrimSpace = 0x100,      // is dropped at both ends
    kCollapseSpace = 0x200,  // and each run of it within becomes one space
  };

  CMarkup();
  // Like SetDoc on a new object. [any thread]
  explicit CMarkup(MCD_CSTR text);
  explicit CMarkup(const std::string& text);
  explicit CMarkup(std::string&& text);
  CMarkup(const CMarkup& other);
  CMarkup& operator=(const CMarkup& other);
  CMarkup(CMarkup&& other) noexcept;
  CMarkup& operator=(CMarkup&& other) noexcept;
  ~CMarkup();

  // The whole document -----------------------------------------------------------------------------------------------

  // Replaces the document, parses it and returns IsWellFormed(). The C string ends at its NUL; the other forms keep NUL
  // bytes, which count as ordinary characters. A null pointer gives an empty document and frees the records.
  // [owning thread]
  bool SetDoc(MCD_CSTR text);
  bool SetDoc(const std::string& text);
  bool SetDoc(std::string&& text);

  // The text as it stands, until the next change. [owning thread]
  const std::string& GetDoc() const { return document_; }

  // One root element, no fault found by the parse. [owning thread]
  [[nodiscard]] bool IsWellFormed() const;

  // What the last parse found wrong, one phrase a fault with spaces between, or "". [owning thread]
  std::string GetError() const;

  // The same as markup: <lone_end_tag tagname="b" offset="12"/>... [owning thread]
  const std::string& GetResult() const { return result_; }

  // kDocIgnoreCase or 0; takes effect with the next parse or search. [owning thread]
  void SetDocFlags(int flags) { document_flags_ = static_cast<std::uint32_t>(flags) & kDocIgnoreCase; }
  int GetDocFlags() const { return static_cast<int>(document_flags_); }

  // Makes room for a text of that many bytes. [owning thread]
  void Reserve(std::size_t bytes) { document_.reserve(bytes); }

  // Hands the text over with its buffer and leaves an empty document. [owning thread]
  std::string ReleaseDoc();

  // The position -----------------------------------------------------------------------------------------------------

  // To the document's beginning: no parent, no main element, no child. [owning thread]
  void ResetPos() { SetPosition(0, 0, 0); }

  // Takes the next element that the path matches as the main element. Searches the main element's following siblings,
  // or all of them when there is no main element. A null or empty path matches every element. [owning thread]
  //   "b"         the next sibling of that name
  //   "b/c"       the first c in the next b that has one
  //   "/a/b"      from the document on, whatever the position
  //   "//b"       at any depth, in the text's order, behind the main element
  //   "b[2]"      the second b that the search comes to
  //   "b[@x]"  "b[@x='1']"  "b/@x"    a b with the attribute x (with that value)
  bool FindElem(MCD_CSTR path = nullptr);

  // The same among the children of the main element, behind the child; the match becomes the child, its parent the main
  // element. Without a main element the next element becomes it first. [owning thread]
  bool FindChildElem(MCD_CSTR path = nullptr);

  // One level down: the main element becomes the parent, the child the main element. [owning thread]
  bool IntoElem();
  // One level up: the parent becomes the main element, the main element the child. [owning thread]
  bool OutOfElem();

  // Reading: an empty string when there is no such element or attribute ---------------------------------------------

  // The name in the start tag. [owning thread]
  std::string GetTagName() const;
  std::string GetChildTagName() const;

  // The attribute's value with its references replaced. [owning thread]
  std::string GetAttrib(MCD_CSTR name) const;
  std::string GetChildAttrib(MCD_CSTR name) const;

  // The text in the element with its references replaced and its CDATA sections opened, comments and the like left out;
  // empty for an element with child elements. [owning thread]
  std::string GetData() const;
  std::string GetChildData() const;

  // Changing ---------------------------------------------------------------------------------------------------------

  // Sets an attribute; a null value is an empty one. The value is escaped, quotes included; kKeepReferences applies.
  // False without an element, for a name that no attribute can have, and over a limit. [owning thread]
  bool SetAttrib(MCD_CSTR name, MCD_CSTR value, int flags = 0);
  bool SetAttrib(MCD_CSTR name, int value, int flags = 0);
  // SetAttrib of the main element for each in turn, but spliced in at once where that is the same. False when one of
  // them was refused; the others are set. [owning thread]
  struct AttributeText {
    MCD_CSTR name;
    MCD_CSTR value;
  };
  bool SetAttribs(std::span<const AttributeText> attributes, int flags = 0);
  bool SetAttribsSingly(std::span<const AttributeText> attributes, int flags = 0);  // the oracle in tests
  bool SetChildAttrib(MCD_CSTR name, MCD_CSTR value, int flags = 0);
  bool SetChildAttrib(MCD_CSTR name, int value, int flags = 0);

  // Adds an element behind the main element (the child), or behind the last sibling when there is none; it becomes the
  // main element (the child). False for a name that no tag can have, for kAddNoEnd with data, without a main element
  // (child form), under an element without end tag, and over a limit. [owning thread]
  bool AddElem(MCD_CSTR name, MCD_CSTR data = nullptr, int flags = 0);
  bool AddChildElem(MCD_CSTR name, MCD_CSTR data = nullptr, int flags = 0);

  // Replaces what stands between the element's tags; `<a/>` is opened first. The data must not be part of this
  // document. False without an element, when it has child elements or no end tag, and over a limit. [owning thread]
  bool SetData(MCD_CSTR text, int flags = 0);
  bool SetData(std::string_view text, int flags = 0);
  bool SetChildData(MCD_CSTR text, int flags = 0);
  bool SetChildData(std::string_view text, int flags = 0);

  // Appends text to the string that it is given and changes nothing else of it. The result tells whether a "]]>" may
  // stand in what was appended; false saves the search for it.
  using DataWriter = std::function<bool(std::string& text)>;

  // SetData with kAddCData of what `write` appends, put into the document as it is written: much text is never copied.
  // What `write` throws passes through, with the document as it was. [owning thread]
  bool SetCDataBy(const DataWriter& write);

  // Cuts the element out, from its "<" to its last ">". Its previous sibling takes its place in the position; there is
  // none for a first child. False without an element. [owning thread]
  bool RemoveElem();
  bool RemoveChildElem();

  // Text services ----------------------------------------------------------------------------------------------------

  // "&", "<" and ">" as references, with kEscapeQuotes both quotes; kKeepReferences leaves an "&" that begins a
  // reference. [any thread]
  static std::string EscapeText(MCD_CSTR text, int flags = 0);
  static std::string EscapeText(std::string_view text, int flags = 0);

  // Every byte outside 0x20..0x7E as "&#xHH;"; then, if flags is not 0, EscapeText with kKeepReferences. [any thread]
  static std::string EscapeTextBinary(MCD_CSTR text, int flags);
  static std::string EscapeTextBinary(std::string_view text, int flags);

  // References to characters, in UTF-8; what is none that is known stays. [any thread]
  static std::string UnescapeText(MCD_CSTR text, int length = -1, int flags = 0);
  static std::string UnescapeText(std::string_view text, int flags = 0);

  // "<![CDATA[" text "]]>", cut in two where the text holds "]]>". [any thread]
  static std::string x_EncodeCDATASection(std::string_view text);

  // Writes the character's 1 to 4 bytes (1 or 2 units) at buffer + length and adds their number to length. A null
  // buffer only counts. What is no character is written as U+FFFD. [any thread]
  static void EncodeCharUTF8(int code, char* buffer, int& length);
  static void EncodeCharUTF16(int code, char16_t* buffer, int& length);

  // The character at `text`, which moves behind it; -1 for an invalid byte or unit, which alone is stepped over. -1 and
  // no step at `end`, which may be null for text that ends with NUL. [any thread]
  static int DecodeCharUTF8(const char*& text, const char* end = nullptr);
  static int DecodeCharUTF16(const char16_t*& text, const char16_t* end = nullptr);

  // Whole texts; what is invalid becomes U+FFFD. [any thread]
  static std::string UTF16To8(std::u16string_view text);
  static std::u16string UTF8To16(std::string_view text);

  // True when the bytes above 127 form valid UTF-8. `non_ascii` gets the number of characters above 127 up to the end
  // or the first fault; `cut_off` tells whether the text ends inside a sequence, which then counts as valid. Without
  // `cut_off` such a text is not valid. [any thread]
  static bool DetectUTF8(const char* text, int length, int* non_ascii = nullptr, bool* cut_off = nullptr);

  // From and to the character set of the process's locale; what that set lacks becomes "?" and is counted. [any thread]
  static std::string UTF8ToA(MCD_CSTR text, int* lost = nullptr);
  static std::string AToUTF8(MCD_CSTR text, int* lost = nullptr);

  // The code page number of an encoding's name, in any case; -1 for an unknown name. [any thread]
  static int GetEncodingCodePage(MCD_CSTR name);

  // The byte-order marks. [any thread]
  static const std::array<BomTableRow, 4> BomTable;

  // With "=" at the end, without line breaks. [any thread]
  static std::string EncodeBase64(const unsigned char* bytes, std::size_t count);
  // The number of bytes decoded, or -1 for a text that is no base64 or needs more than `size` bytes. White space is
  // skipped. A null buffer only counts. [any thread]
  static int DecodeBase64(MCD_CSTR text, unsigned char* bytes, int size);

  // The sum of the bytes as signed characters, modulo size. [any thread]
  static int x_Hash(MCD_CSTR text, int size);

  // 0 when the first `length` bytes are the same. [any thread]
  static int x_StrNCmp(MCD_CSTR a, MCD_CSTR b, int length, bool ignore_case = false);

  // For checks
  // ---------------------------------------------------------------------------------------------------------

  // Whether records and text agree everywhere; if not, `why` says where. Walks the whole document. [owning thread]
  [[nodiscard]] bool CheckInvariants(std::string* why = nullptr) const;

  std::uint32_t ParentPosition() const { return parent_position_; }
  std::uint32_t MainPosition() const { return main_position_; }
  std::uint32_t ChildPosition() const { return child_position_; }
  // The record of an element, valid until the next change. [owning thread]
  const ElemPos& Record(std::uint32_t index) const;
  // Records ever handed out since the last parse, record 0 included; 0 when there are none. [owning thread]
  std::uint32_t RecordCount() const { return next_unused_; }

 private:
  struct ParseState;
  struct Insertion;
  struct DataPlace;

  // Parsing (MarkupParse.cpp)
  bool x_ParseDoc();
  void ParseText();
  void InitRecords();
  void ClearRecords();
  void ReserveRecord();
  std::uint32_t TakeRecord();
  void ReleaseRecord(std::uint32_t index);

  // Reading (Markup.cpp)
  void SetPosition(std::uint32_t parent, std::uint32_t main, std::uint32_t child);
  bool IgnoresCase() const { return (document_flags_ & kDocIgnoreCase) != 0; }
  std::string_view StartTag(std::uint32_t elem) const;
  std::string_view TagName(std::uint32_t elem) const;
  std::string AttributeOf(std::uint32_t elem, MCD_CSTR name) const;
  std::string DataOf(std::uint32_t elem) const;

  // Searching (MarkupFind.cpp)
  std::uint32_t Find(MCD_CSTR path, std::uint32_t parent, std::uint32_t after) const;
  std::uint32_t FindSibling(std::string_view name, std::uint32_t parent, std::uint32_t after) const;
  std::uint32_t FindAlong(const PathPos& path, std::uint32_t parent, std::uint32_t after) const;
  std::uint32_t NextSibling(std::uint32_t parent, std::uint32_t elem) const;
  bool StepMatches(const PathStep& step, std::uint32_t elem) const;

  // Changing (MarkupEdit.cpp)
  bool SetAttributeOf(std::uint32_t elem, MCD_CSTR name, std::string_view value, int flags);
  bool SetDataOf(std::uint32_t elem, std::string_view text, int flags);
  bool ChangeTag(std::uint32_t elem, std::size_t at, std::size_t removed, qx::markup::Pieces& pieces);
  bool MayHaveData(std::uint32_t elem) const;
  DataPlace PlaceOfData(std::uint32_t elem) const;
  void CommitData(std::uint32_t elem, const DataPlace& place, std::size_t added);
  std::uint32_t Insert(std::uint32_t parent, std::uint32_t previous, std::string_view name, std::string_view data,
                       int flags);
  void PlaceInsertion(Insertion& insertion) const;
  static void WriteElement(Insertion& insertion, std::string_view name, std::string_view data, int flags);
  std::uint32_t CommitInsertion(Insertion& insertion);
  void Remove(std::uint32_t elem);
  std::size_t TrailingSlashes(std::uint32_t elem) const;
  void ShiftSiblings(std::uint32_t first, std::uint32_t delta);
  void Shift(std::uint32_t elem, std::uint32_t delta);
  void ReleaseSubtree(std::uint32_t top);
  void Splice(std::size_t offset, std::size_t removed, qx::markup::Pieces& pieces);

  // Order is interface: the members stand as other code of the suite knows them.
  std::string document_;
  std::string result_;
  std::uint32_t parent_position_ = 0;
  std::uint32_t main_position_ = 0;
  std::uint32_t child_position_ = 0;
  std::uint32_t next_unused_ = 0;  // 0: there are no records
  std::uint32_t free_list_ = 0;
  std::int32_t node_type_ = 0;  // 0: the position is on an element, or nowhere
  std::int32_t node_offset_ = 0;
  std::int32_t node_length_ = 0;
  std::uint32_t document_flags_ = 0;
  [[maybe_unused]] FilePos* file_state_ = nullptr;                // always null: no file modes
  [[maybe_unused]] SavedPosMapArray* saved_positions_ = nullptr;  // always null: no saved positions
  std::unique_ptr<ElemPosTree> tree_;
};
