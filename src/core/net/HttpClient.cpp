#include "core/net/HttpClient.h"

#include <curl/curl.h>

#include <algorithm>
#include <asio/post.hpp>
#include <asio/this_coro.hpp>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "core/net/TransportError.h"
#include "core/runtime/SharedOutcome.h"
#include "core/runtime/ThreadName.h"

namespace pavix {
namespace {

// Turns a libcurl result into the URL-loading error numbers the rest of the system reports.
TransportError transportError(CURLcode code, const char* detail) {
    // The sentence is for people; libcurl's own detail goes to the log through detail().
    std::string text = detail && *detail ? detail : curl_easy_strerror(code);
    switch (code) {
        case CURLE_OPERATION_TIMEDOUT:
            return {TransportError::kTimedOut, "The request timed out.", text};
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_RESOLVE_PROXY:
            return {TransportError::kCannotFindHost,
                    "A server with the specified hostname could not be found.", text};
        case CURLE_COULDNT_CONNECT:
            return {TransportError::kCannotConnect, "Could not connect to the server.", text};
        case CURLE_GOT_NOTHING:
        case CURLE_RECV_ERROR:
        case CURLE_SEND_ERROR:
        case CURLE_SEND_FAIL_REWIND:
        case CURLE_PARTIAL_FILE:
            return {TransportError::kConnectionLost, "The network connection was lost.", text};
        case CURLE_WEIRD_SERVER_REPLY:
        case CURLE_HTTP2:
            return {TransportError::kBadServerResponse,
                    "The server sent a reply that could not be read.", text};
        case CURLE_UNSUPPORTED_PROTOCOL:
            return {TransportError::kUnsupportedURL, "Unsupported address.", text};
        case CURLE_URL_MALFORMAT:
            return {TransportError::kBadURL, "Malformed address.", text};
        case CURLE_READ_ERROR:
            return {TransportError::kCannotOpenFile, "The file to send could not be read.", text};
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_SSL_CACERT_BADFILE:
            return {TransportError::kSecureConnectionFailed,
                    "A secure connection to the server could not be made.", text};
        default:
            return {TransportError::kUnknown, "The request failed.", text};
    }
}

}  // namespace

// One request in flight. Owned by the engine while active; touched only by the network thread
// from submission to completion.
struct Transfer {
    HttpRequest request;
    CURL* easy = nullptr;
    curl_slist* headers = nullptr;
    std::FILE* file = nullptr;
    std::size_t sent = 0;  // of an in-memory body
    std::string reply;
    bool tooLarge = false;
    char errorText[CURL_ERROR_SIZE] = {};
    // Called exactly once, on the network thread.
    std::function<void(std::exception_ptr, HttpResponse)> complete;

    ~Transfer() {
        if (easy != nullptr) {
            curl_easy_cleanup(easy);
        }
        if (headers != nullptr) {
            curl_slist_free_all(headers);
        }
        if (file != nullptr) {
            std::fclose(file);
        }
    }
};

class HttpClient::Engine {
  public:
    Engine() {
        curl_global_init(CURL_GLOBAL_DEFAULT);
        multi_ = curl_multi_init();
        thread_ = std::thread([this] {
            nameThisThread("pavix-http");
            run();
        });
    }

    ~Engine() {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        curl_multi_wakeup(multi_);
        thread_.join();
        curl_multi_cleanup(multi_);
    }

    void submit(std::shared_ptr<Transfer> transfer) {
        {
            std::lock_guard lock(mutex_);
            incoming_.push_back(std::move(transfer));
        }
        curl_multi_wakeup(multi_);
    }

    void abandon(std::shared_ptr<Transfer> transfer) {
        {
            std::lock_guard lock(mutex_);
            abandoned_.push_back(std::move(transfer));
        }
        curl_multi_wakeup(multi_);
    }

  private:
    static std::size_t onReply(char* data, std::size_t size, std::size_t count, void* user) {
        auto* transfer = static_cast<Transfer*>(user);
        std::size_t bytes = size * count;
        // libcurl does not stop a chunked reply at CURLOPT_MAXFILESIZE, so the cap is kept here.
        if (transfer->reply.size() + bytes > transfer->request.maxReplyBytes) {
            transfer->tooLarge = true;
            return 0;
        }
        transfer->reply.append(data, bytes);
        return bytes;
    }

    static std::size_t onRead(char* buffer, std::size_t size, std::size_t count, void* user) {
        auto* transfer = static_cast<Transfer*>(user);
        if (transfer->file == nullptr) {
            const auto& body = transfer->request.body;
            std::size_t got = std::min(size * count, body.size() - transfer->sent);
            std::memcpy(buffer, body.data() + transfer->sent, got);
            transfer->sent += got;
            return got;
        }
        std::size_t got = std::fread(buffer, 1, size * count, transfer->file);
        if (got == 0 && std::ferror(transfer->file)) {
            return CURL_READFUNC_ABORT;
        }
        return got;
    }

    // libcurl sends a request again by itself when a reused connection dies before any reply,
    // and rewinds the body for it. The service may already have acted on the first one (a
    // one-time code used, a piece stored), and a dropped poll would never be noticed: a body
    // is therefore never rewound, and such a request fails with no HTTP reply like any other
    // dropped connection. A request whose body never left keeps libcurl's retry: the service
    // cannot have seen it.
    static int onSeek(void*, curl_off_t, int) { return CURL_SEEKFUNC_FAIL; }

    bool configure(Transfer& t) {
        t.easy = curl_easy_init();
        if (t.easy == nullptr) {
            return false;
        }
        const auto& r = t.request;
        curl_easy_setopt(t.easy, CURLOPT_URL, r.url.c_str());
        curl_easy_setopt(t.easy, CURLOPT_PRIVATE, &t);
        curl_easy_setopt(t.easy, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(t.easy, CURLOPT_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(t.easy, CURLOPT_FOLLOWLOCATION, 0L);
        curl_easy_setopt(t.easy, CURLOPT_NOPROXY, "localhost,127.0.0.1,::1");
        curl_easy_setopt(t.easy, CURLOPT_TIMEOUT_MS, static_cast<long>(r.timeout.count()));
        curl_easy_setopt(t.easy, CURLOPT_CONNECTTIMEOUT_MS,
                         static_cast<long>(std::min<long>(r.timeout.count(), 15'000)));
        curl_easy_setopt(t.easy, CURLOPT_ERRORBUFFER, t.errorText);
        curl_easy_setopt(t.easy, CURLOPT_WRITEFUNCTION, &Engine::onReply);
        curl_easy_setopt(t.easy, CURLOPT_WRITEDATA, &t);
        for (const auto& [name, value] : r.headers) {
            std::string line = name;
            line.append(": ").append(value);
            t.headers = curl_slist_append(t.headers, line.c_str());
        }
        // libcurl would otherwise send "Expect: 100-continue" with bodies over 1 MiB and wait
        // up to a second for the server's go-ahead.
        t.headers = curl_slist_append(t.headers, "Expect:");
        curl_easy_setopt(t.easy, CURLOPT_HTTPHEADER, t.headers);
        if (r.method == "GET") {
            curl_easy_setopt(t.easy, CURLOPT_HTTPGET, 1L);
        } else {
            curl_easy_setopt(t.easy, CURLOPT_POST, 1L);
            if (r.method != "POST") {
                curl_easy_setopt(t.easy, CURLOPT_CUSTOMREQUEST, r.method.c_str());
            }
            curl_off_t size = static_cast<curl_off_t>(r.body.size());
            if (t.file != nullptr) {
                std::fseek(t.file, 0, SEEK_END);
                size = std::ftell(t.file);
                std::fseek(t.file, 0, SEEK_SET);
            }
            curl_easy_setopt(t.easy, CURLOPT_READFUNCTION, &Engine::onRead);
            curl_easy_setopt(t.easy, CURLOPT_READDATA, &t);
            curl_easy_setopt(t.easy, CURLOPT_SEEKFUNCTION, &Engine::onSeek);
            curl_easy_setopt(t.easy, CURLOPT_POSTFIELDSIZE_LARGE, size);
        }
        return true;
    }

    // Takes a transfer out of the multi handle and frees its libcurl handles here, on the
    // network thread: the transfer itself may be let go of last by the awaiting side, and a
    // handle that once belonged to the multi handle is touched by this thread alone.
    void detach(Transfer& t) {
        curl_multi_remove_handle(multi_, t.easy);
        curl_easy_cleanup(std::exchange(t.easy, nullptr));
        curl_slist_free_all(std::exchange(t.headers, nullptr));
    }

    // `status` is the reply's HTTP status, 0 when none came.
    static void finish(Transfer& t, CURLcode code, long status) {
        if (code == CURLE_OK) {
            if (status > 0) {
                t.complete(nullptr, HttpResponse{status, std::move(t.reply)});
                return;
            }
            code = CURLE_WEIRD_SERVER_REPLY;
        }
        if (t.tooLarge) {
            t.complete(std::make_exception_ptr(
                           TransportError(TransportError::kDataTooLarge,
                                          "The server's reply is larger than Pavix accepts.")),
                       {});
            return;
        }
        t.complete(std::make_exception_ptr(transportError(code, t.errorText)), {});
    }

    void run() {
        for (;;) {
            std::vector<std::shared_ptr<Transfer>> incoming, abandoned;
            {
                std::lock_guard lock(mutex_);
                if (stopping_) {
                    break;
                }
                incoming.swap(incoming_);
                abandoned.swap(abandoned_);
            }
            for (auto& t : incoming) {
                if (!configure(*t)) {
                    t->complete(std::make_exception_ptr(TransportError(
                                    TransportError::kUnknown, "The request could not be made.")),
                                {});
                    continue;
                }
                curl_multi_add_handle(multi_, t->easy);
                active_.emplace(t->easy, t);
            }
            for (auto& t : abandoned) {
                auto found = active_.find(t->easy);
                if (found == active_.end()) {
                    continue;  // finished before the cancellation arrived
                }
                detach(*t);
                active_.erase(found);
                t->complete(std::make_exception_ptr(
                                TransportError(TransportError::kCancelled, "cancelled")),
                            {});
            }
            int running = 0;
            curl_multi_perform(multi_, &running);
            int queued = 0;
            while (CURLMsg* message = curl_multi_info_read(multi_, &queued)) {
                if (message->msg != CURLMSG_DONE) {
                    continue;
                }
                auto found = active_.find(message->easy_handle);
                if (found == active_.end()) {
                    continue;
                }
                auto transfer = found->second;
                CURLcode result = message->data.result;
                long status = 0;
                curl_easy_getinfo(transfer->easy, CURLINFO_RESPONSE_CODE, &status);
                detach(*transfer);
                active_.erase(found);
                finish(*transfer, result, status);
            }
            curl_multi_poll(multi_, nullptr, 0, 1000, nullptr);
        }
        for (auto& [easy, t] : active_) {
            detach(*t);
            t->complete(
                std::make_exception_ptr(TransportError(TransportError::kCancelled, "cancelled")),
                {});
        }
        active_.clear();
        for (auto& t : incoming_) {
            t->complete(
                std::make_exception_ptr(TransportError(TransportError::kCancelled, "cancelled")),
                {});
        }
        incoming_.clear();
    }

    std::mutex mutex_;
    std::vector<std::shared_ptr<Transfer>> incoming_;
    std::vector<std::shared_ptr<Transfer>> abandoned_;
    bool stopping_ = false;
    CURLM* multi_ = nullptr;
    std::unordered_map<CURL*, std::shared_ptr<Transfer>> active_;
    std::thread thread_;
};

HttpClient::HttpClient() : engine_(std::make_shared<Engine>()) {}

HttpClient::~HttpClient() = default;

asio::awaitable<HttpResponse> HttpClient::send(HttpRequest request) {
    auto executor = co_await asio::this_coro::executor;
    auto pending = std::make_shared<SharedOutcome<HttpResponse>>(executor);
    auto transfer = std::make_shared<Transfer>();
    transfer->request = std::move(request);
    if (transfer->request.bodyFile) {
        transfer->file = std::fopen(transfer->request.bodyFile->c_str(), "rb");
        if (transfer->file == nullptr) {
            throw TransportError(TransportError::kCannotOpenFile,
                                 "The file to send could not be opened.");
        }
    }
    // The completion gives its reference to the pending result away with the posted handler,
    // so the result is always released on the executor that owns it.
    transfer->complete = [executor, pending](std::exception_ptr error,
                                             HttpResponse response) mutable {
        asio::post(executor, [p = std::move(pending), error = std::move(error),
                              r = std::move(response)]() mutable {
            if (error) {
                p->reject(error);
            } else {
                p->resolve(std::move(r));
            }
        });
    };
    engine_->submit(transfer);
    try {
        co_return co_await pending->take();
    } catch (const std::system_error&) {
        engine_->abandon(transfer);  // the awaiting coroutine was cancelled
        throw;
    }
}

}  // namespace pavix
