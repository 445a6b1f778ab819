// Internal: owners of the objects of the NATS library, and connections as the relay makes them.
//
// Only the sources of this folder include the library's header.
#pragma once

#include <nats/nats.h>

#include <memory>
#include <optional>
#include <string>

#include "tools/qxrelay/config/RelayConfig.h"

namespace qx::relay::nats {

template <auto kDestroy>
struct Destroyer {
  template <typename Object>
  void operator()(Object* object) const {
    (void)kDestroy(object);  // there is nothing to do about a failure
  }
};

using Options = std::unique_ptr<natsOptions, Destroyer<natsOptions_Destroy>>;
using Connection = std::unique_ptr<natsConnection, Destroyer<natsConnection_Destroy>>;
using Subscription = std::unique_ptr<natsSubscription, Destroyer<natsSubscription_Destroy>>;
using Message = std::unique_ptr<natsMsg, Destroyer<natsMsg_Destroy>>;
using Context = std::unique_ptr<jsCtx, Destroyer<jsCtx_Destroy>>;
using StreamInfo = std::unique_ptr<jsStreamInfo, Destroyer<jsStreamInfo_Destroy>>;

// The text of the library for a failed call: "cannot connect: No server available for connection".
[[nodiscard]] std::string Problem(const std::string& what, natsStatus status);

// Callbacks for problems that the library reports outside a call, in threads of the library.
struct Handlers {
  natsErrHandler on_error = nullptr;
  natsConnectionHandler on_closed = nullptr;
  void* closure = nullptr;
};

// Makes the options of a connection: servers, TLS and credentials of the settings. The library must not reconnect,
// because it would buffer messages: the owner makes a new connection instead. Returns why it failed; unset after a
// success. [any thread]
[[nodiscard]] std::optional<std::string> MakeOptions(const StreamSettings& settings, const Handlers& handlers,
                                                     Options& options);

// Connects, within two seconds for each server. [any thread]
[[nodiscard]] std::optional<std::string> MakeConnection(const StreamSettings& settings, const Handlers& handlers,
                                                        Connection& connection);

// Makes the JetStream context of the settings' domain. Returns why it failed; unset after a success. [any thread]
[[nodiscard]] std::optional<std::string> MakeContext(const StreamSettings& settings, const Connection& connection,
                                                     Context& context);

}  // namespace qx::relay::nats
