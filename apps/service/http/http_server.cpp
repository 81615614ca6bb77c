#include "apps/service/http/http_server.h"

#include <microhttpd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <utility>

#include "apps/service/base/refusal.h"
#include "apps/service/http/peer_address.h"

namespace morvik_service {
namespace {

constexpr std::size_t kStreamBlockBytes = std::size_t{16} * 1024;
constexpr const char* kTlsVersions = "NORMAL:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2";

// One request while its body arrives. Releases what it reserved when it ends, however it ends.
class Exchange {
 public:
  explicit Exchange(HttpServer& server) : server_(server) {}
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;
  ~Exchange() { server_.release(reserved_bytes_); }

  HttpRequest& request() { return request_; }
  bool overloaded() const { return overloaded_; }

  // Keeps more of the body, or only counts it once it cannot be kept. False if the sender does not stop.
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

int socketOf(MHD_Connection* connection) {
  const MHD_ConnectionInfo* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
  return info == nullptr ? -1 : info->connect_fd;
}

const sockaddr* peerOf(MHD_Connection* connection) {
  const MHD_ConnectionInfo* peer = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
  return peer == nullptr ? nullptr : peer->client_addr;
}

bool comesFromLoopback(MHD_Connection* connection) {
  const sockaddr* peer = peerOf(connection);
  return peer != nullptr && isLoopbackPeer(peer);
}

// The state of an open connection.
struct Guest {
  Guest(HttpServer& server, MHD_Connection* connection)
      : place(server.places(), clientAt(peerOf(connection))), head(server.heads(), socketOf(connection)) {}

  const ClientPlaces::Place place;
  HeadWatch::Watched head;
};

Guest& guestOf(MHD_Connection* connection) {
  const MHD_ConnectionInfo* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
  return *static_cast<Guest*>(info->socket_context);
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

// While it exists, waiting does not count as idle time of the client; the idle time restarts afterwards.
class OwnWait {
 public:
  OwnWait(MHD_Connection* connection, const HttpServer& server) : connection_(connection), server_(server) {
    MHD_set_connection_option(connection_, MHD_CONNECTION_OPTION_TIMEOUT, 0U);
  }
  OwnWait(const OwnWait&) = delete;
  OwnWait& operator=(const OwnWait&) = delete;
  ~OwnWait() { MHD_set_connection_option(connection_, MHD_CONNECTION_OPTION_TIMEOUT, server_.idleSeconds()); }

 private:
  MHD_Connection* connection_;
  const HttpServer& server_;
};

// A stream that is being sent, and the rest of the piece that did not fit into the library's buffer. It ends with the
// server or its reader.
class Outflow {
 public:
  Outflow(std::shared_ptr<BodyStream> stream, MHD_Connection* connection, HttpServer& server)
      : stream_(std::move(stream)),
        connection_(connection),
        server_(server),
        watched_(server.hangUps(), socketOf(connection), end_),
        on_server_stop_(server.stopping(), [this] { end_.request_stop(); }) {}

  // The next bytes; 0 at the end. No exception may pass through the C library.
  std::size_t read(char* buffer, std::size_t room) {
    if (!refill())
      return 0;
    const std::size_t bytes = std::min(room, piece_.size() - sent_);
    std::memcpy(buffer, piece_.data() + sent_, bytes);
    sent_ += bytes;
    return bytes;
  }

 private:
  bool refill() {
    if (sent_ < piece_.size())
      return true;
    try {
      const OwnWait wait(connection_, server_);
      std::optional<std::string> next = stream_->next(end_.get_token());
      if (!next || next->empty())
        return false;
      piece_ = std::move(*next);
      sent_ = 0;
      return true;
    } catch (const std::exception&) {
      return false;
    }
  }

  const std::shared_ptr<BodyStream> stream_;
  MHD_Connection* const connection_;
  HttpServer& server_;
  std::string piece_;
  std::size_t sent_ = 0;
  std::stop_source end_;
  const HangUpWatch::Watched watched_;
  const std::stop_callback<std::function<void()>> on_server_stop_;
};

ssize_t readOutflow(void* context, std::uint64_t, char* buffer, std::size_t room) {
  const std::size_t bytes = static_cast<Outflow*>(context)->read(buffer, room);
  return bytes == 0 ? MHD_CONTENT_READER_END_OF_STREAM : static_cast<ssize_t>(bytes);
}

void freeOutflow(void* context) {
  delete static_cast<Outflow*>(context);
}

Response makeResponse(HttpReply& reply, MHD_Connection* connection, HttpServer& server) {
  if (reply.stream == nullptr) {
    // The library copies the body; its signature predates const.
    return Response(MHD_create_response_from_buffer(reply.body.size(), reply.body.data(), MHD_RESPMEM_MUST_COPY));
  }
  auto outflow = std::make_unique<Outflow>(std::move(reply.stream), connection, server);
  Response response(
      MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, kStreamBlockBytes, readOutflow, outflow.get(), freeOutflow));
  if (response != nullptr)
    outflow.release();
  return response;
}

MHD_Result send(MHD_Connection* connection, HttpServer& server, HttpReply reply) {
  const Response response = makeResponse(reply, connection, server);
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
          "\"fix\":\"send again later\"}"};
}

// Ending a request with MHD_NO closes its connection without an answer.
MHD_Result finishRequest(HttpServer& server, MHD_Connection* connection, Exchange& exchange) {
  const OwnWait wait(connection, server);
  HttpReply reply = exchange.overloaded() ? overloadedReply() : server.answer(exchange.request());
  if (reply.close_without_answer)
    return MHD_NO;
  if (reply.delay.count() > 0 && !server.waitUnlessStopping(reply.delay))
    return MHD_NO;
  return send(connection, server, std::move(reply));
}

// Called once when the head is complete, once per piece of the body, and once at the end.
MHD_Result onRequest(void* context, MHD_Connection* connection, const char* path, const char* method, const char*,
                     const char* data, std::size_t* data_bytes, void** slot) {
  HttpServer& server = *static_cast<HttpServer*>(context);
  try {
    if (*slot == nullptr) {
      auto exchange = std::make_unique<Exchange>(server);
      readHead(connection, path, method, exchange->request());
      *slot = exchange.release();
      guestOf(connection).head.arrived();
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

void onCompleted(void*, MHD_Connection* connection, void** slot, MHD_RequestTerminationCode) {
  delete static_cast<Exchange*>(std::exchange(*slot, nullptr));
  guestOf(connection).head.awaitNext();
}

MHD_Result onAccept(void* context, const sockaddr* address, socklen_t) {
  try {
    return static_cast<HttpServer*>(context)->places().hasRoomFor(clientAt(address)) ? MHD_YES : MHD_NO;
  } catch (const std::exception&) {
    return MHD_NO;
  }
}

// The end is reported before the socket is closed. The library accepts connections and reports both events on one
// thread: a connection that onAccept admitted is counted before the next one.
void onConnection(void* context, MHD_Connection* connection, void** slot, MHD_ConnectionNotificationCode code) {
  if (code == MHD_CONNECTION_NOTIFY_CLOSED) {
    delete static_cast<Guest*>(std::exchange(*slot, nullptr));
    return;
  }
  try {
    *slot = std::make_unique<Guest>(*static_cast<HttpServer*>(context), connection).release();
  } catch (const std::exception&) {
    // Out of memory: a connection that is not counted is not served.
    ::shutdown(socketOf(connection), SHUT_RDWR);
  }
}

}  // namespace

void HttpServer::Stop::operator()(MHD_Daemon* daemon) const {
  MHD_stop_daemon(daemon);
}

HttpServer::HttpServer(Listener& listener, const TlsIdentity& identity, Handler handler, const ServerLimits& limits)
    : handler_(std::move(handler)),
      limits_(limits),
      heads_(std::chrono::seconds(limits.head_seconds)),
      places_(limits.connections_of_a_client) {
  const int socket = listener.release();
  daemon_.reset(MHD_start_daemon(
      MHD_USE_TLS | MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_POLL | MHD_USE_ITC, 0,
      onAccept, this, onRequest, this,                              //
      MHD_OPTION_LISTEN_SOCKET, socket,                             //
      MHD_OPTION_HTTPS_MEM_CERT, identity.certificate_pem.c_str(),  //
      MHD_OPTION_HTTPS_MEM_KEY, identity.key_pem.c_str(),           //
      MHD_OPTION_HTTPS_PRIORITIES, kTlsVersions,                    //
      MHD_OPTION_NOTIFY_CONNECTION, onConnection, this,             //
      MHD_OPTION_NOTIFY_COMPLETED, onCompleted, nullptr,            //
      MHD_OPTION_CONNECTION_LIMIT, limits_.connections,             //
      MHD_OPTION_CONNECTION_MEMORY_LIMIT, kMaxHeaderBytes,          //
      MHD_OPTION_CONNECTION_TIMEOUT, limits_.idle_seconds,          //
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
    return {500, "{\"error\":\"the service failed inside\",\"where\":\"the service\",\"fix\":\"send again\"}"};
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
