// Rebuilds the worked example of docs/provider-interface.md, and reads it.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "provider/KrxGenData.h"
#include "provider/KrxRequestParams.h"
#include "tests/support/Support.h"

namespace {

// A whole block in one piece of memory. Its pointers are those that it has at the address `base`.
class BlockImage {
 public:
  explicit BlockImage(char* bytes, std::uint64_t base) : bytes_(bytes), base_(base) {}

  template <typename T>
  void Put(std::size_t offset, const T& value) {
    std::memcpy(bytes_ + offset, &value, sizeof value);
  }
  template <typename T = void>
  T* At(std::size_t offset) const {
    return reinterpret_cast<T*>(static_cast<std::uintptr_t>(base_ + offset));
  }

 private:
  char* bytes_;
  std::uint64_t base_;
};

constexpr std::size_t kImageBytes = 0xB7;
constexpr std::size_t kArray = 0x18;
constexpr std::size_t kElements = 0x30;
constexpr std::size_t kThreadIdValue = 0xA8;
constexpr std::size_t kFunctionValue = 0xAC;

std::size_t ElementOffset(std::size_t i) { return kElements + i * sizeof(krx_element); }

void PutElement(BlockImage& image, std::size_t i, std::int32_t index, std::int32_t type, void* value) {
  krx_element element{};
  element.index = index;
  element.type = type;
  element.value = value;
  image.Put(ElementOffset(i), element);
  image.Put(kArray + i * sizeof(void*), image.At(ElementOffset(i)));
}

// The block of a GetReports call by the service's thread 77, as it would be at `base`.
void BuildExample(char (&bytes)[kImageBytes], std::uint64_t base) {
  std::memset(bytes, 0, sizeof bytes);
  BlockImage image(bytes, base);
  krx_gendata header{};
  header.version = 30400;
  header.size = kImageBytes;
  std::memcpy(header.tag, "KRX", 4);
  header.element_count = 3;
  header.elements = image.At<krx_element*>(kArray);
  image.Put(0, header);
  PutElement(image, 0, kKrxProviderData, kKrxTypePointer, nullptr);
  PutElement(image, 1, kKrxThreadId, kKrxTypeUint32, image.At(kThreadIdValue));
  PutElement(image, 2, kKrxFunctionId, kKrxTypeString, image.At(kFunctionValue));
  image.Put(kThreadIdValue, std::uint32_t{77});
  image.Put(kFunctionValue, "GetReports");
}

TEST(InterfaceDoc, RequestBlockExampleHasTheBytesOfTheStructures) {
  char bytes[kImageBytes];
  BuildExample(bytes, 0x1000);
  EXPECT_EQ(qx::test::HexDump({bytes, sizeof bytes}), qx::test::DocExample("provider-interface.md", "request-block"));
}

TEST(InterfaceDoc, RequestBlockExampleIsReadByTheAccessors) {
  alignas(8) char bytes[kImageBytes];
  BuildExample(bytes, reinterpret_cast<std::uintptr_t>(bytes));
  const KrxRequestParams params(reinterpret_cast<const wcs_gendata*>(bytes));
  EXPECT_TRUE(params.CheckSignature("KRX"));
  EXPECT_EQ(params.GetVersion(), 30400U);
  EXPECT_EQ(params.GetSize(), 183);
  EXPECT_EQ(params.GetThreadId(), 77U);
  EXPECT_EQ(params.GetFunctionId(), "GetReports");
  EXPECT_EQ(params.GetProviderSpecificData(), nullptr);
  int thread_data = 0;
  params.SetProviderSpecificData(&thread_data);
  void* slot = nullptr;
  std::memcpy(&slot, bytes + ElementOffset(0) + 32, sizeof slot);
  EXPECT_EQ(slot, &thread_data);
}

}  // namespace
