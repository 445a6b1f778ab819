// Answers requests about one report from its files. All functions run in the reading thread.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "tools/qxctl/cli/text/Json.h"
#include "tools/qxview/api/RecordText.h"
#include "tools/qxview/http/HttpRequest.h"
#include "tools/qxview/report/IndexCache.h"

namespace qx::view {

// Threads: one thread.
// Owns: the indexes. Failure: a reply that says what failed. Throws std::bad_alloc.
class Reading {
 public:
  explicit Reading(std::string directory) : directory_(std::move(directory)) {}

  // A function that does the next step of an answer. The last step returns the reply.
  using Steps = std::function<std::optional<HttpReply>(bool is_last_of_turn)>;

  // Each of these requests has the parameter `report`. [owning thread]
  [[nodiscard]] HttpReply Report(const HttpRequest& request);
  [[nodiscard]] HttpReply Names(const HttpRequest& request);
  [[nodiscard]] HttpReply Fields(const HttpRequest& request);
  [[nodiscard]] Steps Chart(const HttpRequest& request);
  [[nodiscard]] Steps Records(const HttpRequest& request);

  // Records as a text that is read while it is sent. `text` is null if the reply is a failure. [owning thread]
  struct Download {
    HttpReply head;
    std::shared_ptr<RecordText> text;
  };
  [[nodiscard]] Download Text(const HttpRequest& request) const;

  // Frees indexes that are not used any more. [owning thread]
  void Trim() { indexes_.Trim(); }

 private:
  [[nodiscard]] Steps RecordsBetween(const HttpRequest& request, const std::string& base_path);

  [[nodiscard]] std::optional<HttpReply> StepOf(const HttpRequest& request, const IndexWork& work, const Error& error,
                                                const std::function<ctl::Json()>& document);

  std::string directory_;
  IndexCache indexes_;
};

}  // namespace qx::view
