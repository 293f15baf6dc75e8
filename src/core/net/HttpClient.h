#pragma once

#include <asio/awaitable.hpp>
#include <memory>

#include "core/net/HttpRequest.h"

namespace pavix {

// Awaitable, cancellable HTTP over libcurl. One network thread drives a curl multi handle;
// each request's easy handle is touched only by that thread. A finished request resumes the
// awaiting coroutine on its own executor. Redirects are never followed, cookies are never kept,
// only http and https are spoken, and replies are capped in size.
//
// Failures without an HTTP reply are thrown as TransportError; any HTTP reply, whatever its
// status, is returned.
class HttpClient {
  public:
    HttpClient();
    ~HttpClient();
    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;

    asio::awaitable<HttpResponse> send(HttpRequest request);

  private:
    class Engine;
    std::shared_ptr<Engine> engine_;
};

}  // namespace pavix
