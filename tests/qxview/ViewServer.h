// Runs qxview as a child process of a test, and sends what a browser or an attacker sends.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace qx::test {

struct WebReply {
  int status = 0;  // 0: there was no reply
  std::string head;
  std::string body;

  // The value of a header; empty if the reply does not have it.
  [[nodiscard]] std::string Header(const std::string& name) const;
};

struct WebRequest {
  std::string method = "GET";
  std::string target;
  std::map<std::string, std::string> headers = {};  // Host is that of the server, unless it is here
  std::string body = {};
};

// A connection to the server. Closed at the end of the scope.
class WebConnection {
 public:
  explicit WebConnection(std::uint16_t port);
  ~WebConnection();
  WebConnection(WebConnection&& other) noexcept;
  WebConnection(const WebConnection&) = delete;
  WebConnection& operator=(const WebConnection&) = delete;

  [[nodiscard]] bool IsOpen() const { return socket_ >= 0; }
  // False if the server has closed the connection.
  [[nodiscard]] bool Send(std::string_view bytes) const;
  // Waits until the text comes; false if it does not come in time. Text returns everything that was read.
  bool WaitFor(std::string_view text, std::chrono::milliseconds time);
  // Waits until the server closes the connection; false if this does not happen in time.
  bool WaitForEnd(std::chrono::milliseconds time);
  [[nodiscard]] const std::string& Text() const { return text_; }
  void Clear() { text_.clear(); }

 private:
  bool ReadUntil(std::chrono::milliseconds time, std::string_view text);

  int socket_ = -1;
  std::string text_;
  bool has_ended_ = false;
};

// Threads: one thread. Owns: the process, which dies with the test.
class ViewServer {
 public:
  using Words = std::vector<std::string>;

  // Starts the server, and waits until it has printed its address.
  explicit ViewServer(Words arguments);
  ~ViewServer();
  ViewServer(const ViewServer&) = delete;
  ViewServer& operator=(const ViewServer&) = delete;

  [[nodiscard]] std::uint16_t Port() const { return port_; }
  [[nodiscard]] const std::string& Token() const { return token_; }
  [[nodiscard]] std::string Host() const { return "127.0.0.1:" + std::to_string(port_); }

  // Exchanges the token for a cookie, which later requests have.
  WebReply LogIn();
  // Uses this cookie, such as one of another run of the server.
  void UseCookie(const std::string& cookie) { cookie_ = cookie; }
  [[nodiscard]] const std::string& Cookie() const { return cookie_; }

  WebReply Ask(WebRequest request) const;
  // Requests a document of the API: "overview", "records?report=load".
  WebReply Get(const std::string& target) const { return Ask({.target = "/api/v1/" + target}); }
  // The bytes of a request.
  [[nodiscard]] std::string Bytes(const WebRequest& request) const;
  // Opens an event stream, and waits until it has begun.
  [[nodiscard]] WebConnection Events(const std::string& query) const;

  // Sends SIGHUP and waits for the new token.
  void RenewToken();
  // Sends the signal and returns the exit code, or -1 after the end by a signal.
  int End(int signal);
  [[nodiscard]] pid_t Id() const { return process_; }
  // The largest memory of the process so far, in KiB.
  [[nodiscard]] long PeakKb() const;

 private:
  void ReadAddress();

  pid_t process_ = 0;
  int output_ = -1;
  std::uint16_t port_ = 0;
  std::string token_;
  std::string cookie_;
};

}  // namespace qx::test
