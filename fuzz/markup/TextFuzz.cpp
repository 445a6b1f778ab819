// Passes any bytes through the text services of CMarkup. Encoded text must be decoded to the same bytes.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/support/Require.h"
#include "markup/Markup.h"
#include "markup/TextEncoding.h"

namespace {

using qx::fuzz::Require;

void CheckEscapes(const std::string& text) {
  for (const int flags : {0, +CMarkup::kEscapeQuotes}) {
    const std::string escaped = CMarkup::EscapeText(std::string_view(text), flags);
    Require(CMarkup::UnescapeText(std::string_view(escaped)) == text);
    Require(CMarkup::EscapeText(std::string_view(escaped), flags | CMarkup::kKeepReferences) == escaped);
    Require(escaped.find('<') == std::string::npos);
  }
  const std::string binary = CMarkup::EscapeTextBinary(std::string_view(text), CMarkup::kEscapeQuotes);
  for (const char c : binary) Require(c >= ' ' && c <= '~');
  for (const int flags : {0, +CMarkup::kTrimSpace, +CMarkup::kCollapseSpace}) {
    (void)CMarkup::UnescapeText(std::string_view(text), flags);
  }
}

void CheckCData(const std::string& text) {
  CMarkup markup("<a/>");
  Require(markup.FindElem() && markup.SetData(std::string_view(text), CMarkup::kAddCData));
  Require(markup.GetData() == text);
  Require(markup.GetDoc() == "<a>" + CMarkup::x_EncodeCDATASection(text) + "</a>");
  Require(CMarkup(markup.GetDoc()).IsWellFormed());
}

void CheckBase64(const std::string& text) {
  const std::string coded = CMarkup::EncodeBase64(reinterpret_cast<const unsigned char*>(text.data()), text.size());
  std::vector<unsigned char> bytes(text.size() + 1);
  const int size = CMarkup::DecodeBase64(coded.c_str(), bytes.data(), static_cast<int>(text.size()));
  Require(size == static_cast<int>(text.size()) && std::string(bytes.begin(), bytes.end() - 1) == text);
  (void)CMarkup::DecodeBase64(text.c_str(), bytes.data(), static_cast<int>(text.size() / 2));
}

void CheckUtf(const std::string& text) {
  const std::u16string wide = CMarkup::UTF8To16(text);
  const std::string back = CMarkup::UTF16To8(wide);
  int non_ascii = 0;
  bool cut_off = false;
  const bool valid = CMarkup::DetectUTF8(text.data(), static_cast<int>(text.size()), &non_ascii, &cut_off);
  Require(valid || !cut_off);
  Require((valid && !cut_off) == (CMarkup::DetectUTF8(text.data(), static_cast<int>(text.size()))));
  if (valid && !cut_off) Require(back == text);
  Require(CMarkup::DetectUTF8(back.data(), static_cast<int>(back.size())));

  const std::u16string units(reinterpret_cast<const char16_t*>(text.data()), text.size() / 2);
  Require(CMarkup::UTF8To16(CMarkup::UTF16To8(units)).size() == units.size());
  const char* p = text.c_str();
  for (const char* last = p; CMarkup::DecodeCharUTF8(p) >= 0 || p != last; last = p) Require(p > last || *p == '\0');
}

void CheckEncodings(const std::string& text) {
  for (const char* encoding : {"ISO-8859-1", "UTF-16", "UTF-16BE", "UTF-32", "EUC-JP"}) {
    TextEncoding from("UTF-8", encoding);
    const std::string utf8 = from.Convert(text);
    Require(CMarkup::DetectUTF8(utf8.data(), static_cast<int>(utf8.size())));
    TextEncoding to(encoding, "UTF-8");
    (void)to.Convert(text);
  }
  (void)CMarkup::GetEncodingCodePage(text.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  CheckEscapes(text);
  CheckCData(text);
  CheckBase64(text);
  CheckUtf(text);
  CheckEncodings(text);
  return 0;
}
