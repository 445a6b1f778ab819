#include "provider/KrxRequestParams.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <string>
#include <type_traits>

#include "tests/support/BlockBuilder.h"

namespace {

using qx::test::BlockBuilder;

static_assert(!std::is_polymorphic_v<KrxRequestParams>);
static_assert(!std::is_copy_constructible_v<KrxRequestParams>);
static_assert(!std::is_copy_assignable_v<KrxRequestParams>);
static_assert(std::is_same_v<decltype(std::declval<KrxRequestParams&>().GetVersion()), std::uint32_t>);
static_assert(std::is_same_v<decltype(std::declval<KrxRequestParams&>().GetSize()), std::int32_t>);

std::string SignatureOfTag(const char (&tag)[5]) {
  BlockBuilder block;
  std::memcpy(block.Header().tag, tag, 4);
  return KrxRequestParams(block.Block()).GetSignature();
}

TEST(KrxRequestParams, SignatureIsTheTagUpToItsTerminator) {
  EXPECT_EQ(SignatureOfTag("KRX\0"), "KRX");
  EXPECT_EQ(SignatureOfTag("KR\0\0"), "KR");
  EXPECT_EQ(SignatureOfTag("\0\0\0\0"), "");
  EXPECT_EQ(SignatureOfTag("\0RX\0"), "");
}

TEST(KrxRequestParams, SignatureOfAnUnterminatedTagIsThreeQuestionMarks) {
  EXPECT_EQ(SignatureOfTag("KRXX"), "???");
  EXPECT_EQ(SignatureOfTag("K\0\0X"), "???");  // only the fourth byte matters
  EXPECT_EQ(SignatureOfTag("\xFF\xFF\xFF\xFF"), "???");
}

TEST(KrxRequestParams, SignatureIsACopyMadeAtConstruction) {
  BlockBuilder block;
  const KrxRequestParams params(block.Block());
  std::memcpy(block.Header().tag, "ABC", 4);
  EXPECT_STREQ(params.GetSignature(), "KRX");
}

TEST(KrxRequestParams, CheckSignatureComparesTheWholeStringByteWise) {
  BlockBuilder block;
  const KrxRequestParams params(block.Block());
  EXPECT_TRUE(params.CheckSignature("KRX"));
  EXPECT_FALSE(params.CheckSignature("KR"));
  EXPECT_FALSE(params.CheckSignature("KRXX"));
  EXPECT_FALSE(params.CheckSignature("krx"));
  EXPECT_FALSE(params.CheckSignature(""));
}

TEST(KrxRequestParams, HeaderFieldsAreReturnedRaw) {
  BlockBuilder block;
  block.Text(3, "a").Text(4, "b");
  block.Header().version = 0xFFFFFFFEU;
  block.Header().size = -5;
  const KrxRequestParams params(block.Block());
  EXPECT_EQ(params.GetVersion(), 0xFFFFFFFEU);
  EXPECT_EQ(params.GetSize(), -5);
  EXPECT_EQ(params.GetElementCount(), 2);
  block.Header().element_count = -7;
  EXPECT_EQ(params.GetElementCount(), -7);
}

TEST(KrxRequestParams, DefaultConstructedObjectHasAnEmptySignatureAndNoPrivileges) {
  const KrxRequestParams params;
  EXPECT_STREQ(params.GetSignature(), "");
  EXPECT_FALSE(params.HasSecurityPrivilege("AccessPerformanceMgr"));
}

TEST(KrxRequestParams, StringComesFromATypeEightElementOnly) {
  BlockBuilder block;
  block.Text(3, "What").Text(5, "").Raw(8, kKrxTypeString, nullptr).Number(12, 0x00636261).Raw(13, 9, "text");
  const KrxRequestParams params(block.Block());
  EXPECT_EQ(params.GetParamString(3), "What");
  EXPECT_EQ(params.GetParamString(5), "");
  EXPECT_EQ(params.GetParamString(8), "");
  EXPECT_EQ(params.GetParamString(12), "");  // as text, the bytes of the word are "abc"
  EXPECT_EQ(params.GetParamString(13), "");
  EXPECT_EQ(params.GetParamString(99), "");
}

TEST(KrxRequestParams, StringKeepsEveryByteUpToItsTerminator) {
  BlockBuilder block;
  block.Text(3, "\x01 \xC3\xBC\xFF<&>\"");
  EXPECT_EQ(KrxRequestParams(block.Block()).GetParamString(3), "\x01 \xC3\xBC\xFF<&>\"");
}

TEST(KrxRequestParams, NumberIsZeroExtendedFromTheWidthOfItsType) {
  BlockBuilder block;
  block.Byte(4, 0xFE).Word(5, 0xFEDC).Number(6, 0xFEDCBA98U);
  const KrxRequestParams params(block.Block());
  EXPECT_EQ(params.GetParamValue(4), 0xFEU);
  EXPECT_EQ(params.GetParamValue(5), 0xFEDCU);
  EXPECT_EQ(params.GetParamValue(6), 0xFEDCBA98U);
}

TEST(KrxRequestParams, TypeFiveReadsExactlySixteenBits) {
  const unsigned char bytes[] = {0x34, 0x12, 0xEE, 0xEE};
  BlockBuilder block;
  block.Raw(7, kKrxTypeUint16, bytes).Raw(9, kKrxTypeUint8, bytes).Raw(11, kKrxTypeUint32, bytes);
  const KrxRequestParams params(block.Block());
  EXPECT_EQ(params.GetParamValue(7), 0x1234U);
  EXPECT_EQ(params.GetParamValue(9), 0x34U);
  EXPECT_EQ(params.GetParamValue(11), 0xEEEE1234U);
}

TEST(KrxRequestParams, NumbersNeedNoAlignment) {
  const unsigned char bytes[] = {0, 0x78, 0x56, 0x34, 0x12};
  BlockBuilder block;
  block.Raw(2, kKrxTypeUint32, bytes + 1);
  EXPECT_EQ(KrxRequestParams(block.Block()).GetThreadId(), 0x12345678U);
}

TEST(KrxRequestParams, NumberOfAnotherTypeOrWithoutValueIsZero) {
  BlockBuilder block;
  block.Text(2, "77").Pointer(6, "77").Raw(7, kKrxTypeUint32, nullptr).Raw(9, 7, "77").Raw(10, -6, "77");
  const KrxRequestParams params(block.Block());
  for (const int index : {2, 6, 7, 9, 10, 99}) EXPECT_EQ(params.GetParamValue(index), 0U) << index;
}

TEST(KrxRequestParams, BoolIsAnyNonZeroNumber) {
  BlockBuilder block;
  block.Byte(6, 0).Byte(10, 2).Number(11, 0x80000000U).Text(12, "1");
  const KrxRequestParams params(block.Block());
  EXPECT_FALSE(params.GetParamBool(6));
  EXPECT_TRUE(params.GetParamBool(10));
  EXPECT_TRUE(params.GetParamBool(11));
  EXPECT_FALSE(params.GetParamBool(12));
  EXPECT_FALSE(params.GetParamBool(99));
}

TEST(KrxRequestParams, PointerIsTheValueOfATypeThreeElement) {
  int datum = 0;
  BlockBuilder block;
  block.Pointer(1, &datum).Raw(4, kKrxTypeNested, &datum);
  const KrxRequestParams params(block.Block());
  EXPECT_EQ(params.GetParamPtr(1), &datum);
  EXPECT_EQ(params.GetParamPtr(4), nullptr);
  EXPECT_EQ(params.GetParamPtr(99), nullptr);
}

TEST(KrxRequestParams, SetParamPtrOverwritesTheSlotInTheServicesBlock) {
  int first = 0;
  int second = 0;
  BlockBuilder block;
  block.Number(2, 77).Pointer(1, &first);
  const KrxRequestParams params(block.Block());
  params.SetParamPtr(1, &second);
  EXPECT_EQ(params.GetParamPtr(1), &second);
  EXPECT_EQ(block.Entry(1)->value, &second);
  EXPECT_EQ(KrxRequestParams(block.Block()).GetProviderSpecificData(), &second);
  params.SetParamPtr(1, nullptr);
  EXPECT_EQ(block.Entry(1)->value, nullptr);
}

TEST(KrxRequestParams, SetParamPtrWritesNothingButTheEightBytesOfTheSlot) {
  int datum = 0;
  BlockBuilder block;
  block.Pointer(1, nullptr);
  krx_element expected = *block.Entry(0);
  expected.value = &datum;
  const krx_gendata header = *block.Block();
  KrxRequestParams(block.Block()).SetProviderSpecificData(&datum);
  EXPECT_EQ(std::memcmp(block.Entry(0), &expected, sizeof expected), 0);
  EXPECT_EQ(std::memcmp(block.Block(), &header, sizeof header), 0);
}

TEST(KrxRequestParams, SetProviderSpecificDataWithoutElementOneChangesNothing) {
  int datum = 0;
  BlockBuilder block;
  block.Number(2, 77);
  const krx_element before = *block.Entry(0);
  const KrxRequestParams params(block.Block());
  params.SetProviderSpecificData(&datum);
  EXPECT_EQ(params.GetProviderSpecificData(), nullptr);
  EXPECT_EQ(std::memcmp(block.Entry(0), &before, sizeof before), 0);
}

TEST(KrxRequestParams, SetProviderSpecificDataOnATypeSixElementOneChangesNothing) {
  int datum = 0;
  BlockBuilder block;
  block.Number(1, 5);
  const krx_element before = *block.Entry(0);
  const KrxRequestParams params(block.Block());
  params.SetProviderSpecificData(&datum);
  EXPECT_EQ(params.GetProviderSpecificData(), nullptr);
  EXPECT_EQ(std::memcmp(block.Entry(0), &before, sizeof before), 0);
}

TEST(KrxRequestParams, FirstOfTwoElementsWithOneIndexWins) {
  BlockBuilder block;
  block.Text(3, "first").Text(3, "second").Number(5, 1).Text(5, "hidden by the number");
  const KrxRequestParams params(block.Block());
  EXPECT_EQ(params.GetFunctionId(), "first");
  EXPECT_EQ(params.GetApplicationId(), "");
}

TEST(KrxRequestParams, IndexZeroIsNeverFound) {
  BlockBuilder block;
  block.Text(0, "text").Number(0, 5).Pointer(0, "p");
  const KrxRequestParams params(block.Block());
  EXPECT_EQ(params.GetParamString(0), "");
  EXPECT_EQ(params.GetParamValue(0), 0U);
  EXPECT_EQ(params.GetParamPtr(0), nullptr);
}

TEST(KrxRequestParams, NegativeIndicesAreFoundLikeAnyOther) {
  BlockBuilder block;
  block.Text(-3, "text");
  EXPECT_EQ(KrxRequestParams(block.Block()).GetParamString(-3), "text");
}

TEST(KrxRequestParams, NothingIsFoundWithElementCountZero) {
  BlockBuilder block;
  block.Text(3, "text");
  block.Header().element_count = 0;
  EXPECT_EQ(KrxRequestParams(block.Block()).GetFunctionId(), "");
}

TEST(KrxRequestParams, NothingIsFoundWithANegativeElementCount) {
  BlockBuilder block;
  block.Text(3, "text");
  block.Header().element_count = -1;
  EXPECT_EQ(KrxRequestParams(block.Block()).GetFunctionId(), "");
  block.Header().element_count = std::numeric_limits<std::int32_t>::min();
  EXPECT_EQ(KrxRequestParams(block.Block()).GetFunctionId(), "");
}

TEST(KrxRequestParams, NothingIsFoundInANullArray) {
  BlockBuilder block;
  block.Header().elements = nullptr;
  block.Header().element_count = std::numeric_limits<std::int32_t>::max();
  EXPECT_EQ(KrxRequestParams(block.Block()).GetFunctionId(), "");
}

TEST(KrxRequestParams, NullEntriesAreSkipped) {
  BlockBuilder block;
  block.NullEntry().Text(3, "text").NullEntry();
  const KrxRequestParams params(block.Block());
  EXPECT_EQ(params.GetFunctionId(), "text");
  EXPECT_EQ(params.GetApplicationId(), "");
}

TEST(KrxRequestParams, WholeBlockNeedsNoAlignment) {
  // The header, the array and the element of a block are at odd addresses.
  BlockBuilder block;
  block.Text(3, "text");
  char element_bytes[sizeof(krx_element) + 1];
  std::memcpy(element_bytes + 1, block.Entry(0), sizeof(krx_element));
  const char* element = element_bytes + 1;
  char array_bytes[sizeof element + 1];
  std::memcpy(array_bytes + 1, &element, sizeof element);
  krx_gendata header = *block.Block();
  header.elements = reinterpret_cast<krx_element**>(array_bytes + 1);
  char header_bytes[sizeof header + 1];
  std::memcpy(header_bytes + 1, &header, sizeof header);

  const KrxRequestParams params(reinterpret_cast<const wcs_gendata*>(header_bytes + 1));
  EXPECT_EQ(params.GetFunctionId(), "text");
  EXPECT_EQ(params.GetElementCount(), 1);
}

TEST(KrxRequestParams, NamedAccessorsReadTheirIndices) {
  int datum = 0;
  BlockBuilder block;
  block.Pointer(1, &datum).Number(2, 1002).Text(3, "function").Text(5, "application").Byte(6, 1).Byte(7, 9);
  block.Byte(9, 3).Byte(10, 1).Word(11, 600).Text(78, "path").Text(79, "mode").Text(80, "method");
  const KrxRequestParams params(block.Block());
  EXPECT_EQ(params.GetProviderSpecificData(), &datum);
  EXPECT_EQ(params.GetThreadId(), 1002U);
  EXPECT_EQ(params.GetFunctionId(), "function");
  EXPECT_EQ(params.GetApplicationId(), "application");
  EXPECT_TRUE(params.GetZipCompressionEnabled());
  EXPECT_EQ(params.GetZipLevel(), 9U);
  EXPECT_EQ(params.GetSSLUsage(), 3U);
  EXPECT_TRUE(params.GetKeepAlive());
  EXPECT_EQ(params.GetRequestTimeout(), 600U);
  EXPECT_EQ(params.GetRequestPath(), "path");
  EXPECT_EQ(params.GetRequestMode(), "mode");
  EXPECT_EQ(params.GetRequestMethod(), "method");
}

TEST(KrxRequestParams, NamedAccessorsOfAnEmptyBlockReturnEmptyValues) {
  BlockBuilder block;
  const KrxRequestParams params(block.Block());
  EXPECT_EQ(params.GetProviderSpecificData(), nullptr);
  EXPECT_EQ(params.GetThreadId(), 0U);
  EXPECT_EQ(params.GetFunctionId(), "");
  EXPECT_EQ(params.GetApplicationId(), "");
  EXPECT_FALSE(params.GetZipCompressionEnabled());
  EXPECT_EQ(params.GetZipLevel(), 0U);
  EXPECT_EQ(params.GetSSLUsage(), 0U);
  EXPECT_FALSE(params.GetKeepAlive());
  EXPECT_EQ(params.GetRequestTimeout(), 0U);
  EXPECT_EQ(params.GetRequestPath(), "");
  EXPECT_EQ(params.GetRequestMode(), "");
  EXPECT_EQ(params.GetRequestMethod(), "");
}

// The text that GetRequestorAddress(out) leaves in an `out` that was "before". The function always returns false.
std::string AddressOver(BlockBuilder& block) {
  std::string out = "before";
  EXPECT_FALSE(KrxRequestParams(block.Block()).GetRequestorAddress(out));
  return out;
}

TEST(KrxRequestParams, RequestorAddressIsCopiedFromElementFifteenInsideFourteen) {
  BlockBuilder block;
  block.Nested(14).Number(16, 1).Text(15, "192.0.2.1");
  EXPECT_EQ(AddressOver(block), "192.0.2.1");
  EXPECT_EQ(KrxRequestParams(block.Block()).GetRequestorAddress(), "192.0.2.1");
}

TEST(KrxRequestParams, RequestorAddressOfAnEmptyStringClearsTheOutput) {
  BlockBuilder block;
  block.Nested(14).Text(15, "");
  EXPECT_EQ(AddressOver(block), "");
  EXPECT_EQ(KrxRequestParams(block.Block()).GetRequestorAddress(), "");
}

TEST(KrxRequestParams, RequestorAddressIsUnchangedWithoutElementFourteen) {
  BlockBuilder missing;
  missing.Text(15, "not inside 14");
  EXPECT_EQ(AddressOver(missing), "before");
  EXPECT_EQ(KrxRequestParams(missing.Block()).GetRequestorAddress(), "");

  BlockBuilder other_type;
  other_type.Nested(14, 513).Text(15, "192.0.2.1");
  EXPECT_EQ(AddressOver(other_type), "before");

  BlockBuilder no_value;
  no_value.Raw(14, kKrxTypeNested, nullptr);
  EXPECT_EQ(AddressOver(no_value), "before");
}

TEST(KrxRequestParams, RequestorAddressIsUnchangedWithoutElementFifteen) {
  BlockBuilder missing;
  missing.Nested(14).Text(16, "192.0.2.1");
  EXPECT_EQ(AddressOver(missing), "before");

  BlockBuilder other_type;
  other_type.Nested(14).Number(15, 1);
  EXPECT_EQ(AddressOver(other_type), "before");

  BlockBuilder no_value;
  no_value.Nested(14).Raw(15, kKrxTypeString, nullptr);
  EXPECT_EQ(AddressOver(no_value), "before");
}

TEST(KrxRequestParams, RequestorAddressIsNotSearchedInTheChain) {
  BlockBuilder block;
  block.Nested(14).Next().Text(15, "192.0.2.1");
  EXPECT_EQ(AddressOver(block), "before");
}

TEST(KrxRequestParams, NestedBlockWithANegativeCountOrANullArrayIsEmpty) {
  BlockBuilder block;
  auto& nested = block.Nested(14);
  nested.Text(15, "192.0.2.1");
  const wcs_gendata* raw = block.Block();
  std::string out = "before";
  nested.Block()->element_count = -1;
  (void)KrxRequestParams(raw).GetRequestorAddress(out);
  EXPECT_EQ(out, "before");
  nested.Block()->element_count = 1;
  nested.Block()->elements = nullptr;
  (void)KrxRequestParams(raw).GetRequestorAddress(out);
  EXPECT_EQ(out, "before");
}

}  // namespace
