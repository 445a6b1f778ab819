#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "markup/Markup.h"

namespace {

TEST(MarkupThreads, DocumentsInDifferentThreadsShareNothing) {
  const std::string text = "<m><a><x/><b></m></c>";
  std::vector<std::string> errors(4);
  std::vector<std::string> replies(4);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < errors.size(); ++i) {
    threads.emplace_back([&text, &error = errors[i], &reply = replies[i]] {
      for (int round = 0; round < 200; ++round) {
        const CMarkup in(text);
        error = in.GetError();
        CMarkup out;
        out.AddElem("R");
        out.SetAttrib("Name", CMarkup::EscapeTextBinary("n\xE4", CMarkup::kEscapeQuotes).c_str(),
                      CMarkup::kKeepReferences);
        out.SetData(CMarkup::UnescapeText("&Delta;").c_str(), CMarkup::kAddCData);
        reply = out.GetDoc();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const std::string& error : errors) EXPECT_EQ(error, CMarkup(text).GetError());
  for (const std::string& reply : replies) {
    EXPECT_EQ(reply, "<R Name=\"n&#xE4;\"><![CDATA[\xCE\x94]]></R>\n");
  }
}

}  // namespace
