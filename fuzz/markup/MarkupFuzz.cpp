// Parses any bytes as a document, walks it, formats its results and changes it. Records and text must agree after every
// step.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/support/Require.h"
#include "markup/Markup.h"

namespace {

using qx::fuzz::Require;

constexpr int kElementsWalked = 64;

void CheckSound(const CMarkup& markup) { Require(markup.CheckInvariants()); }

void Walk(CMarkup& markup) {
  for (int i = 0; i < kElementsWalked && markup.FindElem("//[1]"); ++i) {
    (void)markup.GetTagName();
  }
  markup.ResetPos();
  for (int i = 0; i < kElementsWalked; ++i) {
    if (!markup.FindElem()) {
      if (!markup.OutOfElem()) break;
      continue;
    }
    (void)markup.GetTagName();
    (void)markup.GetData();
    (void)markup.GetAttrib("a");
    if (markup.FindChildElem()) (void)markup.IntoElem();
  }
}

// The bytes of the document determine the path and the edits.
void Edit(CMarkup& markup, const std::string& text) {
  markup.ResetPos();
  (void)markup.FindElem(text.substr(text.size() / 2).c_str());
  for (std::size_t i = 0; i < text.size() && i < 24; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const std::string data = text.substr(i, byte % 8);
    const int flags = byte * 37 & (CMarkup::kAddCData | CMarkup::kAddNoLines | CMarkup::kAddSpaceSlash |
                                   CMarkup::kKeepReferences | CMarkup::kAddNoEnd | CMarkup::kEscapeQuotes);
    const std::string before = markup.GetDoc();
    bool changed = true;
    switch (byte % 8) {
      case 0:
        changed = markup.AddElem(data.c_str(), data.c_str(), flags);
        break;
      case 1:
        changed = markup.AddChildElem("c", data.c_str(), flags);
        break;
      case 2:
        changed = markup.SetAttrib(data.c_str(), data.c_str(), flags);
        if (changed && (flags & CMarkup::kKeepReferences) == 0) Require(markup.GetAttrib(data.c_str()) == data.c_str());
        break;
      case 3:
        changed = markup.SetData(std::string_view(data), flags);
        if (changed && (flags & CMarkup::kKeepReferences) == 0) Require(markup.GetData() == data);
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
        (void)markup.FindElem();
    }
    Require(changed || markup.GetDoc() == before);
    CheckSound(markup);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  for (const int flags : {0, +CMarkup::kDocIgnoreCase}) {
    CMarkup markup;
    markup.SetDocFlags(flags);
    const bool well_formed = markup.SetDoc(text);
    CheckSound(markup);
    Require(well_formed == (markup.GetResult().empty() && !text.empty()));
    Require(markup.GetError().empty() == markup.GetResult().empty());
    Walk(markup);
    CheckSound(markup);
    Edit(markup, text);
  }
  return 0;
}
