// Tests the built file from outside: its symbols, the libraries that it needs, its hardening, and the use of its
// headers and its block from C and Python.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/module/Host.h"

extern "C" const char* CheckHeadersFromC(void);  // CHeaders.c

namespace {

using qx::test::InChild;
using qx::test::LoadedModule;
using qx::test::ModuleTest;
using qx::test::OutputOf;
using qx::test::ReadFile;
using testing::HasSubstr;
using testing::Not;

constexpr bool kSurfaceIsSanitized = QX_SANITIZED;

std::vector<std::string> LinesOf(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// "0000000000012345 T What" => "T What"
std::string ExportedSymbols() {
  std::set<std::string> symbols;
  for (const std::string& line : LinesOf(OutputOf("nm -D --defined-only " QX_MODULE_PATH))) {
    symbols.insert(line.substr(line.find(' ') + 1));
  }
  std::string text;
  for (const std::string& symbol : symbols) text += symbol + "\n";
  return text;
}

TEST(ModuleSurface, ExportsExactlyTheListedSymbols) {
  EXPECT_EQ(ExportedSymbols(), ReadFile(QX_MODULE_TESTS "/exported-symbols.txt"));
}

TEST(ModuleSurface, NeedsTheLanguageAndSystemLibrariesOnly) {
  if (kSurfaceIsSanitized) GTEST_SKIP() << "the sanitizer's own library is needed, too";
  for (const std::string& line : LinesOf(OutputOf("readelf -dW " QX_MODULE_PATH))) {
    if (line.find("(NEEDED)") == std::string::npos) continue;
    EXPECT_THAT(line,
                testing::ContainsRegex("\\[(libstdc\\+\\+|libgcc_s|libm|libc|ld-linux[-a-z0-9_]*)\\.so\\.[0-9]+\\]"));
  }
}

TEST(ModuleSurface, IsHardenedAndFullyBoundAtLoad) {
  const std::string dynamic = OutputOf("readelf -dW " QX_MODULE_PATH);
  EXPECT_THAT(dynamic, HasSubstr("BIND_NOW"));
  EXPECT_THAT(dynamic, HasSubstr("SYMBOLIC"));
  EXPECT_THAT(dynamic, Not(HasSubstr("TEXTREL")));
  EXPECT_THAT(dynamic, Not(HasSubstr("RPATH")));
  EXPECT_THAT(dynamic, Not(HasSubstr("RUNPATH")));
  EXPECT_THAT(dynamic, Not(HasSubstr("NODELETE")));
  EXPECT_THAT(dynamic, Not(HasSubstr("NOOPEN")));
  EXPECT_THAT(dynamic, HasSubstr("soname: [QXRemConXfer.so]"));
  const std::string segments = OutputOf("readelf -lW " QX_MODULE_PATH);
  EXPECT_THAT(segments, HasSubstr("GNU_RELRO"));
  EXPECT_THAT(segments, testing::ContainsRegex("GNU_STACK +0x0+ 0x0+ 0x0+ 0x0+ 0x0+ RW "));
  EXPECT_THAT(segments, Not(testing::ContainsRegex("LOAD[^\n]* RWE ")));
}

TEST(ModuleSurface, HasNoUniqueSymbolsAndNoThreadLocalData) {
  const std::string symbols = OutputOf("readelf -sW " QX_MODULE_PATH);
  EXPECT_THAT(symbols, Not(HasSubstr(" UNIQUE ")));  // either would keep the module mapped forever
  for (const std::string& line : LinesOf(symbols)) {
    if (line.find(" TLS ") == std::string::npos) continue;
    EXPECT_THAT(line, testing::ContainsRegex(" UND |__[a-z]*san"))
        << "only errno and those of the sanitizers are allowed";
  }
}

TEST(ModuleSurface, BuildDateIsFixedByTheEnvironment) {
  const qx::test::TempDir directory;
  const std::string header = directory.File("BuildDate.h");
  EXPECT_EQ(OutputOf("SOURCE_DATE_EPOCH=1767225599 " QX_CMAKE " -D OUTPUT=" + header + " -P " QX_BUILD_DATE_SCRIPT),
            "");
  EXPECT_EQ(ReadFile(header), "#define QX_BUILD_DATE \"2025/12/31-23:59\"\n");
}

TEST(ModuleSurface, HeadersCompileAsPlainC) { EXPECT_STREQ(CheckHeadersFromC(), ""); }

class ModuleFromElsewhere : public ModuleTest {};

TEST_F(ModuleFromElsewhere, LinkedProgramInPlainCReachesEveryEntryPoint) {
  EXPECT_EQ(OutputOf(QX_C_HOST_PATH),
            "load-time object 1\n"
            "what 0 <QXRemConXfer \n"
            "reflect 0 <a/>\n"
            "reports 12 <Error Ms\n"
            "version 30400\n"
            "create 1\n"
            "factory 1\n"
            "deleted 1\n");
}

TEST_F(ModuleFromElsewhere, PythonLoadsTheModuleAndCallsIt) {
  std::string preload;
  if (kSurfaceIsSanitized) {  // the address sanitizer's library must come first in a program that was built without it
    preload = "ASAN_OPTIONS=detect_leaks=0 LD_PRELOAD=" QX_SANITIZER_LIBRARY " ";
  }
  EXPECT_EQ(OutputOf(preload + QX_PYTHON " " QX_MODULE_TESTS "/ctypes_host.py " QX_MODULE_PATH),
            "What 0 QXRemConXfer -\n"
            "Reflect 0 <a b=\"1\"/>\n"
            "Reflect 0 None\n"
            "GetReports 12 LastError=2\n"
            "GetReportInstanceNames 12 LastError=2\n"
            "version 30400\n");
}

TEST_F(ModuleFromElsewhere, ExportedReportStoreIsUsableByAnAgent) {
  const std::string text = InChild([] {
    const LoadedModule module;
    // An agent provides the memory of the object; 256 bytes are more than enough.
    alignas(16) static char store[256];
    const auto construct = module.Symbol<void (*)(void*)>("_ZN15CReportFileBaseC1Ev");
    const auto destroy = module.Symbol<void (*)(void*)>("_ZN15CReportFileBaseD1Ev");
    const auto open = module.Symbol<bool (*)(void*, const char*, unsigned)>("_ZN15CReportFileBase4OpenEPKcj");
    const auto write = module.Symbol<bool (*)(void*, const char*)>("_ZN15CReportFileBase9writeLineEPKc");
    const auto close = module.Symbol<bool (*)(void*)>("_ZN15CReportFileBase5CloseEv");
    construct(store);
    std::string result = open(store, (Reports() + "/agent").c_str(), 4) ? "open " : "closed ";
    result += write(store, "from an agent") ? "written " : "lost ";
    close(store);
    destroy(store);
    qx::test::ServiceThread thread(module);
    return result + thread.Ask("agent", 0);
  });
  EXPECT_EQ(text,
            "open written 0 <ReportData Name=\"agent\" StartIndex=\"0\" NextIndex=\"1\"><![CDATA[from an agent\r\n]]>"
            "</ReportData>\n");
}

}  // namespace
