#include "apps/service/http_server.h"

#include <microhttpd.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <utility>

#include "apps/service/peer_address.h"
#include "apps/service/refusal.h"

namespace morvik_service {
namespace {

constexpr std::size_t kStreamBlockBytes = std::size_t{16} * 1024;
constexpr const char* kTlsVersions = "NORMAL:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2";

// One request while its body arrives. Returns what it reserved when it ends, however it ends.
class Exchange {
 public:
  explicit Exchange(HttpServer& server) : server_(server) {}
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;
  ~Exchange() { server_.release(reserved_bytes_); }

  HttpRequest& request() { return request_; }
  bool overloaded() const { return overloaded_; }

  // Keeps more of the body, or only counts it once it cannot be kept. False when the sender does not stop.
  bool take(const char* data, std::size_t bytes) {
    request_.body_bytes += bytes;
    if (request_.body_bytes > kMaxBodyBytes)
      request_.body_too_large = true;
    if (!request_.body_too_large && !overloaded_ && !server_.reserve(bytes))
      overloaded_ = true;
    if (request_.body_too_large || overloaded_) {
      dropBody();
      return request_.body_bytes <= kMaxDiscardedBytes;
    }
    reserved_bytes_ += bytes;
    request_.body.append(data, bytes);
    return true;
  }

 private:
  void dropBody() {
    request_.body = std::string();
    server_.release(std::exchange(reserved_bytes_, 0));
  }

  HttpServer& server_;
  HttpRequest request_;
  std::size_t reserved_bytes_ = 0;
  bool overloaded_ = false;
};

MHD_Result appendValue(void* target, MHD_ValueKind, const char* name, const char* value) {
  static_cast<NamedValues*>(target)->emplace_back(name, value == nullptr ? "" : value);
  return MHD_YES;
}

bool comesFromLoopback(MHD_Connection* connection) {
  const MHD_ConnectionInfo* peer = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
  return peer != nullptr && isLoopbackPeer(peer->client_addr);
}

void readHead(MHD_Connection* connection, const char* path, const char* method, HttpRequest& request) {
  request.method = method;
  request.path = path;
  request.from_loopback = comesFromLoopback(connection);
  MHD_get_connection_values(connection, MHD_GET_ARGUMENT_KIND, appendValue, &request.query);
  MHD_get_connection_values(connection, MHD_HEADER_KIND, appendValue, &request.headers);
}

struct DestroyResponse {
  void operator()(MHD_Response* response) const { MHD_destroy_response(response); }
};

using Response = std::unique_ptr<MHD_Response, DestroyResponse>;

// A stream on its way out, and the rest of the piece that did not fit into the library's buffer.
struct Outflow {
  std::shared_ptr<BodyStream> stream;
  std::stop_token stop;
  std::string piece;
  std::size_t sent = 0;
};

// No exception may pass through the C library.
bool refill(Outflow& outflow) {
  if (outflow.sent < outflow.piece.size())
    return true;
  try {
    std::optional<std::string> next = outflow.stream->next(outflow.stop);
    if (!next || next->empty())
      return false;
    outflow.piece = std::move(*next);
    outflow.sent = 0;
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

ssize_t readOutflow(void* context, std::uint64_t, char* buffer, std::size_t room) {
  Outflow& outflow = *static_cast<Outflow*>(context);
  if (!refill(outflow))
    return MHD_CONTENT_READER_END_OF_STREAM;
  const std::size_t bytes = std::min(room, outflow.piece.size() - outflow.sent);
  std::memcpy(buffer, outflow.piece.data() + outflow.sent, bytes);
  outflow.sent += bytes;
  return static_cast<ssize_t>(bytes);
}

void freeOutflow(void* context) {
  delete static_cast<Outflow*>(context);
}

Response makeResponse(HttpReply& reply, const HttpServer& server) {
  if (reply.stream == nullptr) {
    // The library copies the body; its signature predates const.
    return Response(MHD_create_response_from_buffer(reply.body.size(), reply.body.data(), MHD_RESPMEM_MUST_COPY));
  }
  auto outflow = std::make_unique<Outflow>();
  outflow->stream = std::move(reply.stream);
  outflow->stop = server.stopping();
  Response response(
      MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, kStreamBlockBytes, readOutflow, outflow.get(), freeOutflow));
  if (response != nullptr)
    outflow.release();
  return response;
}

MHD_Result send(MHD_Connection* connection, const HttpServer& server, HttpReply reply) {
  const Response response = makeResponse(reply, server);
  if (response == nullptr)
    return MHD_NO;
  MHD_add_response_header(response.get(), MHD_HTTP_HEADER_CONTENT_TYPE, reply.content_type.c_str());
  MHD_add_response_header(response.get(), MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
  for (const auto& [name, value] : reply.headers)
    MHD_add_response_header(response.get(), name.c_str(), value.c_str());
  return MHD_queue_response(connection, static_cast<unsigned>(reply.status), response.get());
}

HttpReply overloadedReply() {
  return {503,
          "{\"error\":\"too many request bodies at once\",\"where\":\"the service's memory\","
          "\"mend\":\"send again later\"}"};
}

// Ending a request with MHD_NO closes its connection without an answer.
MHD_Result finishRequest(HttpServer& server, MHD_Connection* connection, Exchange& exchange) {
  HttpReply reply = exchange.overloaded() ? overloadedReply() : server.answer(exchange.request());
  if (reply.close_without_answer)
    return MHD_NO;
  if (reply.delay.count() > 0 && !server.waitUnlessStopping(reply.delay))
    return MHD_NO;
  return send(connection, server, std::move(reply));
}

// Called once when the head is there, once per piece of body, and once at the end.
MHD_Result onRequest(void* context, MHD_Connection* connection, const char* path, const char* method, const char*,
                     const char* data, std::size_t* data_bytes, void** slot) {
  HttpServer& server = *static_cast<HttpServer*>(context);
  try {
    if (*slot == nullptr) {
      auto exchange = std::make_unique<Exchange>(server);
      readHead(connection, path, method, exchange->request());
      *slot = exchange.release();
      return MHD_YES;
    }
    Exchange& exchange = *static_cast<Exchange*>(*slot);
    if (*data_bytes == 0)
      return finishRequest(server, connection, exchange);
    const bool going_on = exchange.take(data, std::exchange(*data_bytes, 0));
    return going_on ? MHD_YES : MHD_NO;
  } catch (const std::exception&) {
    // Out of memory; no exception may pass through the C library.
    return MHD_NO;
  }
}

void onCompleted(void*, MHD_Connection*, void** slot, MHD_RequestTerminationCode) {
  delete static_cast<Exchange*>(std::exchange(*slot, nullptr));
}

}  // namespace

void HttpServer::Stop::operator()(MHD_Daemon* daemon) const {
  MHD_stop_daemon(daemon);
}

HttpServer::HttpServer(Listener& listener, const TlsIdentity& identity, Handler handler)
    : handler_(std::move(handler)) {
  const int socket = listener.release();
  daemon_.reset(MHD_start_daemon(
      MHD_USE_TLS | MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_POLL | MHD_USE_ITC, 0,
      nullptr, nullptr, onRequest, this,                            //
      MHD_OPTION_LISTEN_SOCKET, socket,                             //
      MHD_OPTION_HTTPS_MEM_CERT, identity.certificate_pem.c_str(),  //
      MHD_OPTION_HTTPS_MEM_KEY, identity.key_pem.c_str(),           //
      MHD_OPTION_HTTPS_PRIORITIES, kTlsVersions,                    //
      MHD_OPTION_NOTIFY_COMPLETED, onCompleted, nullptr,            //
      MHD_OPTION_CONNECTION_LIMIT, kMaxConnections,                 //
      MHD_OPTION_CONNECTION_MEMORY_LIMIT, kMaxHeaderBytes,          //
      MHD_OPTION_CONNECTION_TIMEOUT, kIdleSeconds,                  //
      MHD_OPTION_END));
  if (daemon_ == nullptr) {
    ::close(socket);
    throw SetupError(
        "cannot set up TLS with the given certificate and key; are both PEM files, and do they match? "
        "--make-cert makes a pair that works");
  }
}

HttpServer::~HttpServer() {
  stopping_.request_stop();
  daemon_.reset();
}

HttpReply HttpServer::answer(const HttpRequest& request) const {
  try {
    return handler_(request);
  } catch (const std::exception&) {
    return {500, "{\"error\":\"the service failed inside\",\"where\":\"the service\",\"mend\":\"send again\"}"};
  }
}

bool HttpServer::waitUnlessStopping(std::chrono::milliseconds delay) {
  std::unique_lock lock(mutex_);
  never_.wait_for(lock, stopping(), delay, [] { return false; });
  return !stopping_.stop_requested();
}

bool HttpServer::reserve(std::size_t bytes) {
  if (buffered_bytes_.fetch_add(bytes) + bytes <= kMaxBufferedBytes)
    return true;
  buffered_bytes_.fetch_sub(bytes);
  return false;
}

void HttpServer::release(std::size_t bytes) {
  buffered_bytes_.fetch_sub(bytes);
}

}  // namespace morvik_service
