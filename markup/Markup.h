// CMarkup is one XML document: its text, and a tree of records with the offsets of the elements in the text.
//
// The text is the only copy of the content. Functions that read copy parts of the text, and each change is made in the
// text at once. So GetDoc always returns the whole document. An element is identified by the 32-bit index of its
// 32-byte record (ElemPosTree.h). docs/markup.md describes what the parser accepts, how it recovers from faults, and
// where new text is inserted.
//
// Deliberately not here: reading or writing files in parts, navigation to nodes that are not elements, saved positions,
// namespaces, and anything that a document type declaration could define or fetch.
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
// The position is three elements: the parent, the main element, and the child (an element in the main element). As the
// parent, 0 means the document; otherwise 0 means no element. Functions named ...Child... work on the child, the others
// on the main element.
//
// Threads: an object belongs to one thread at a time; the static members may be called by any thread.
// Owns: the text and the records.
// Failure: an operation that returns false has changed nothing, except where its comment says otherwise (SetDoc,
// SetAttribs, FindChildElem). If memory runs out, std::bad_alloc is thrown; the document is then as it was before the
// call, except that SetDoc leaves it empty. Limits: a start tag below 4 MiB, a tag name of at most 1,020 bytes, levels
// 0 to 65,535, a document below 4 GiB. A text that exceeds one of these limits is not well formed; a change that would
// exceed one is refused.
class CMarkup {
 public:
  // Flags for the functions that add elements, set data and attributes, and escape. They may be combined.
  enum MarkupFlags : int {
    kAddCData = 1,          // data goes into a CDATA section:     <a><![CDATA[1<2]]></a>
    kAddNoLines = 2,        // no line feed after the element
    kAddSpaceSlash = 4,     // a space in an empty element:        <a />
    kKeepReferences = 8,    // references are not escaped:         &lt; => &lt;, not &amp;lt;
    kAddNoEnd = 16,         // a start tag alone:                  <a>
    kEscapeQuotes = 0x100,  // " and ' are escaped as well
    kAddChild = 0x4000,     // AddElem works as AddChildElem
  };

  // Flags of the document. The file modes (kDocReadFile, kDocWriteFile) are not implemented: SetDocFlags drops their
  // bits.
  enum DocFlags : int {
    kDocIgnoreCase = 8,  // names that differ only in the case of A-Z are equal
    kDocReadFile = 16,
    kDocWriteFile = 32,
  };

  // Flags for UnescapeText. They apply to white space in the text itself, not to white space that a reference encodes.
  enum UnescapeFlags : int {
    kTrimSpace = 0x100,      // remove white space at both ends
    kCollapseSpace = 0x200,  // trim, and replace each run of white space by one space
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
  // bytes, which count as ordinary characters. A null pointer gives an empty document and frees the records. The old
  // document is lost even if the result is false. [owning thread]
  bool SetDoc(MCD_CSTR text);
  bool SetDoc(const std::string& text);
  bool SetDoc(std::string&& text);

  // The current text; the reference is valid until the next change. [owning thread]
  const std::string& GetDoc() const { return document_; }

  // True if the document has exactly one root element now, the last parse found no other fault, and no element was
  // added with kAddNoEnd since then. [owning thread]
  [[nodiscard]] bool IsWellFormed() const;

  // The results of the last parse as text: one phrase per result, separated by spaces, or "". Later changes do not
  // change this text. [owning thread]
  std::string GetError() const;

  // The results of the last parse as XML elements: <lone_end_tag tagname="b" offset="12"/>... [owning thread]
  const std::string& GetResult() const { return result_; }

  // kDocIgnoreCase or 0; applies from the next parse or search on. [owning thread]
  void SetDocFlags(int flags) { document_flags_ = static_cast<std::uint32_t>(flags) & kDocIgnoreCase; }
  int GetDocFlags() const { return static_cast<int>(document_flags_); }

  // Allocates memory for a text of `bytes` bytes. [owning thread]
  void Reserve(std::size_t bytes) { document_.reserve(bytes); }

  // Moves the text out, without a copy, and leaves an empty document. [owning thread]
  std::string ReleaseDoc();

  // The position -----------------------------------------------------------------------------------------------------

  // Moves to the beginning of the document: no parent, no main element, no child. [owning thread]
  void ResetPos() { SetPosition(0, 0, 0); }

  // Makes the next element that matches the path the main element. Searches the main element's following siblings, or
  // all children of the parent if there is no main element. A null or empty path matches every element. False without
  // a match; the position is then unchanged. [owning thread]
  //   "b"         the next sibling of that name
  //   "b/c"       the first c in the next b that has one
  //   "/a/b"      from the document level, whatever the position
  //   "//b"       at any depth, in document order, after the start tag of the main element
  //   "b[2]"      the second b that the search finds
  //   "b[@x]"  "b[@x='1']"  "b/@x"    a b with the attribute x (with that value)
  bool FindElem(MCD_CSTR path = nullptr);

  // Like FindElem, but searches the children of the main element, after the child. The match becomes the child, and its
  // parent the main element. Without a main element, first calls FindElem() without a path: the element that this call
  // finds stays the main element even if the result is false. [owning thread]
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

  // The element's text with references replaced, with the content of CDATA sections, and without comments and
  // processing instructions; empty for an element with child elements. [owning thread]
  std::string GetData() const;
  std::string GetChildData() const;

  // Changing ---------------------------------------------------------------------------------------------------------

  // Sets an attribute; a null value means an empty one. The value is escaped, quotes included; kKeepReferences applies.
  // False if there is no element, if an attribute cannot have this name, and if a limit would be exceeded. [owning
  // thread]
  bool SetAttrib(MCD_CSTR name, MCD_CSTR value, int flags = 0);
  bool SetAttrib(MCD_CSTR name, int value, int flags = 0);
  // Has the same effect as SetAttrib for each attribute in turn, but inserts all at once if possible. False if an
  // attribute is refused; the others are set all the same. [owning thread]
  struct AttributeText {
    MCD_CSTR name;
    MCD_CSTR value;
  };
  bool SetAttribs(std::span<const AttributeText> attributes, int flags = 0);
  bool SetAttribsSingly(std::span<const AttributeText> attributes, int flags = 0);  // the oracle in tests
  bool SetChildAttrib(MCD_CSTR name, MCD_CSTR value, int flags = 0);
  bool SetChildAttrib(MCD_CSTR name, int value, int flags = 0);

  // Adds an element after the main element (child form: after the child), or after the last sibling if there is no such
  // element. The new element becomes the main element (child form: the child). False if a tag cannot have this name,
  // for kAddNoEnd with data, if there is no main element (child form), if the parent has no end tag, and if a limit
  // would be exceeded. [owning thread]
  bool AddElem(MCD_CSTR name, MCD_CSTR data = nullptr, int flags = 0);
  bool AddChildElem(MCD_CSTR name, MCD_CSTR data = nullptr, int flags = 0);

  // Replaces everything between the element's tags; `<a/>` gets an end tag first. `text` must not be part of this
  // document. False if there is no element, if the element has child elements or no end tag, and if a limit would be
  // exceeded. [owning thread]
  bool SetData(MCD_CSTR text, int flags = 0);
  bool SetData(std::string_view text, int flags = 0);
  bool SetChildData(MCD_CSTR text, int flags = 0);
  bool SetChildData(std::string_view text, int flags = 0);

  // A function that appends to `text` and changes nothing else in it. It returns true if the appended text may contain
  // "]]>"; with false, the text is not searched for "]]>".
  using DataWriter = std::function<bool(std::string& text)>;

  // Like SetData with kAddCData, but `write` appends the data directly to the document, so a long text is not copied.
  // An exception from `write` passes through; the document is then unchanged. [owning thread]
  bool SetCDataBy(const DataWriter& write);

  // Removes the element's text, from its "<" to its last ">". The previous sibling becomes the main element (child
  // form: the child); if there is no previous sibling, this position becomes 0. False if there is no element to remove.
  // [owning thread]
  bool RemoveElem();
  bool RemoveChildElem();

  // Text services ----------------------------------------------------------------------------------------------------

  // Writes "&", "<" and ">" as references; with kEscapeQuotes also both quotes. With kKeepReferences an "&" that begins
  // a reference stays. [any thread]
  static std::string EscapeText(MCD_CSTR text, int flags = 0);
  static std::string EscapeText(std::string_view text, int flags = 0);

  // Writes every byte outside 0x20..0x7E as "&#xHH;"; then, if flags is not 0, applies EscapeText with the flags and
  // kKeepReferences. [any thread]
  static std::string EscapeTextBinary(MCD_CSTR text, int flags);
  static std::string EscapeTextBinary(std::string_view text, int flags);

  // Replaces references by their characters in UTF-8; an unknown reference stays. [any thread]
  static std::string UnescapeText(MCD_CSTR text, int length = -1, int flags = 0);
  static std::string UnescapeText(std::string_view text, int flags = 0);

  // "<![CDATA[" text "]]>", split into two sections where the text contains "]]>". [any thread]
  static std::string x_EncodeCDATASection(std::string_view text);

  // Writes the character's 1 to 4 bytes (1 or 2 units) at buffer + length and adds their number to length. A null
  // buffer only counts. A code that is not a character is written as U+FFFD. [any thread]
  static void EncodeCharUTF8(int code, char* buffer, int& length);
  static void EncodeCharUTF16(int code, char16_t* buffer, int& length);

  // Returns the character at `text` and moves `text` past it. For an invalid byte or unit, returns -1 and moves past
  // this byte or unit only. At `end`, returns -1 and does not move; a null `end` means that the text ends with NUL.
  // [any thread]
  static int DecodeCharUTF8(const char*& text, const char* end = nullptr);
  static int DecodeCharUTF16(const char16_t*& text, const char16_t* end = nullptr);

  // Convert whole texts; an invalid byte or unit becomes U+FFFD. [any thread]
  static std::string UTF16To8(std::u16string_view text);
  static std::u16string UTF8To16(std::string_view text);

  // True if the bytes above 127 form valid UTF-8. `non_ascii` is set to the number of characters above 127 before the
  // end or the first fault. `cut_off` is set to true if the text ends inside a sequence; such a text counts as valid
  // if `cut_off` is not null, otherwise as invalid. [any thread]
  static bool DetectUTF8(const char* text, int length, int* non_ascii = nullptr, bool* cut_off = nullptr);

  // Convert to and from the character set of the process's locale. Each character that cannot be converted becomes "?";
  // `lost` is set to their number. [any thread]
  static std::string UTF8ToA(MCD_CSTR text, int* lost = nullptr);
  static std::string AToUTF8(MCD_CSTR text, int* lost = nullptr);

  // The code page number of an encoding; upper and lower case in its name are equal. -1 for an unknown name. [any
  // thread]
  static int GetEncodingCodePage(MCD_CSTR name);

  // The byte-order marks. [any thread]
  static const std::array<BomTableRow, 4> BomTable;

  // Encodes in Base64, with "=" at the end and without line breaks. [any thread]
  static std::string EncodeBase64(const unsigned char* bytes, std::size_t count);
  // Returns the number of decoded bytes, or -1 for a text that is not base64 or needs more than `size` bytes. White
  // space is skipped. A null buffer only counts. [any thread]
  static int DecodeBase64(MCD_CSTR text, unsigned char* bytes, int size);

  // The sum of the bytes as signed characters, modulo size. [any thread]
  static int x_Hash(MCD_CSTR text, int size);

  // Compares the first `length` bytes: 0 if they are equal. [any thread]
  static int x_StrNCmp(MCD_CSTR a, MCD_CSTR b, int length, bool ignore_case = false);

  // Checks -----------------------------------------------------------------------------------------------------------

  // True if the records agree with the text; if not, `why` says where they differ. Walks the whole document.
  // [owning thread]
  [[nodiscard]] bool CheckInvariants(std::string* why = nullptr) const;

  std::uint32_t ParentPosition() const { return parent_position_; }
  std::uint32_t MainPosition() const { return main_position_; }
  std::uint32_t ChildPosition() const { return child_position_; }
  // The record of an element; the reference is valid until the next change. [owning thread]
  const ElemPos& Record(std::uint32_t index) const;
  // The number of records used since the last parse, record 0 and released records included; 0 without any record.
  // [owning thread]
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
  bool SetAttributeOf(std::uint32_t elem, MCD_CSTR name, std::string_view value, int flags, bool is_number = false);
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

  // Order is interface: other code of the suite depends on the order of these members.
  std::string document_;
  std::string result_;
  std::uint32_t parent_position_ = 0;
  std::uint32_t main_position_ = 0;
  std::uint32_t child_position_ = 0;
  std::uint32_t next_unused_ = 0;  // 0: there are no records
  std::uint32_t free_list_ = 0;
  std::int32_t node_type_ = 0;  // 0: the position is an element, or there is no position
  std::int32_t node_offset_ = 0;
  std::int32_t node_length_ = 0;
  std::uint32_t document_flags_ = 0;
  [[maybe_unused]] FilePos* file_state_ = nullptr;                // always null: file modes are not implemented
  [[maybe_unused]] SavedPosMapArray* saved_positions_ = nullptr;  // always null: saved positions are not implemented
  std::unique_ptr<ElemPosTree> tree_;
};
