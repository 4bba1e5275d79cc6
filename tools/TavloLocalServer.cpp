#include "TavloLocalServer.h"

#include <httplib.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <exception>
#include <stdexcept>

namespace {

char lowerASCII(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool sameName(const std::string& a, const std::string& b) {
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return lowerASCII(x) == lowerASCII(y); });
}

// cpp-httplib files the connection's addresses among the request headers; they were
// never on the wire, and a test asserting on the headers sent must not see them.
bool isBookkeepingHeader(const std::string& name) {
  return name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" || name == "LOCAL_PORT";
}

TavloLocalServerRequest recordOf(const httplib::Request& request) {
  TavloLocalServerRequest record;
  record.method = request.method;
  record.target = request.target;
  const auto question = request.target.find('?');
  record.path = request.target.substr(0, question);
  if (question != std::string::npos) record.query = request.target.substr(question + 1);
  for (const auto& [name, value] : request.headers) {
    if (!isBookkeepingHeader(name)) record.headers.emplace_back(name, value);
  }
  record.body = request.body;
  return record;
}

// The text of a "Date" header: "Tue, 14 Nov 2023 22:13:20 GMT".
std::string httpDate(TavloDate date) {
  // 0001-01-01 and 9999-12-31 23:59:59, the years a four-digit field can hold.
  constexpr double earliest = -62135596800.0;
  constexpr double latest = 253402300799.0;
  const time_t seconds = (std::isfinite(date) && date >= earliest && date <= latest) ? static_cast<time_t>(std::floor(date)) : 0;
  struct tm utc {};
  gmtime_r(&seconds, &utc);
  // Names written out rather than taken from strftime, which follows the locale.
  static constexpr const char* weekdays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static constexpr const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                           "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  char text[64];
  std::snprintf(text, sizeof text, "%s, %02d %s %04d %02d:%02d:%02d GMT", weekdays[utc.tm_wday], utc.tm_mday,
                months[utc.tm_mon], utc.tm_year + 1900, utc.tm_hour, utc.tm_min, utc.tm_sec);
  return text;
}

void writeResponse(const TavloLocalServerResponse& answer, httplib::Response& response) {
  response.status = answer.status;
  if (answer.date) response.set_header("Date", httpDate(*answer.date));
  for (const auto& [name, value] : answer.headers) response.set_header(name, value);
  response.set_content(answer.body, "text/plain");
}

}  // namespace

std::optional<std::string> TavloLocalServerRequest::header(const std::string& name) const {
  for (const auto& [headerName, value] : headers) {
    if (sameName(headerName, name)) return value;
  }
  return std::nullopt;
}

TavloLocalServerResponse TavloLocalServerResponse::with(int status, std::string body) {
  TavloLocalServerResponse answer;
  answer.status = status;
  answer.body = std::move(body);
  return answer;
}

TavloLocalServer::TavloLocalServer() : TavloLocalServer(Options{}) {}

TavloLocalServer::TavloLocalServer(Options options) { start(options); }

TavloLocalServer::~TavloLocalServer() { stop(); }

void TavloLocalServer::start(const Options& options) {
  server = std::make_unique<httplib::Server>();
  // An idle keep-alive connection holds a worker, and stop() waits for the workers.
  server->set_keep_alive_max_count(options.keepAlive ? 100 : 1);
  server->set_keep_alive_timeout(1);

  const auto dispatch = [this](const httplib::Request& request, httplib::Response& response) {
    TavloLocalServerRequest record = recordOf(request);
    {
      std::lock_guard<std::mutex> lock(stateProtector);
      received.push_back(record);
      requestArrived.notify_all();
    }
    TavloLocalServerResponse answer;
    serve(record, answer);
    writeResponse(answer, response);
  };
  server->Get(".*", dispatch);
  server->Post(".*", dispatch);
  server->Put(".*", dispatch);
  server->Patch(".*", dispatch);
  server->Delete(".*", dispatch);
  server->Options(".*", dispatch);

  const int port = options.port == 0 ? server->bind_to_any_port("127.0.0.1")
                                     : (server->bind_to_port("127.0.0.1", options.port) ? options.port : -1);
  if (port <= 0) throw std::runtime_error("the server could not bind 127.0.0.1" + (options.port ? ":" + std::to_string(options.port) : ""));
  base = "http://127.0.0.1:" + std::to_string(port);

  listener = std::thread([this] {
    server->listen_after_bind();
    listenerEnded = true;
  });
  // stop() is a no-op until the server reports running, and the listener would then
  // never end: so nothing returns (and no destructor can run) before it does. It is set
  // as listen_after_bind begins, so this loop only ever spins for a moment.
  while (!server->is_running()) {
    if (listenerEnded) {
      listener.join();
      throw std::runtime_error("the test server stopped before it began to listen");
    }
    std::this_thread::yield();
  }
}

void TavloLocalServer::stop() {
  if (!listener.joinable()) return;
  server->stop();
  listener.join();
}

void TavloLocalServer::serve(const TavloLocalServerRequest& request, TavloLocalServerResponse& response) const {
  Handler chosen;
  {
    std::lock_guard<std::mutex> lock(stateProtector);
    std::size_t longest = 0;
    for (const auto& [prefix, handler] : handlers) {
      if (request.path.starts_with(prefix) && (!chosen || prefix.size() > longest)) {
        chosen = handler;
        longest = prefix.size();
      }
    }
  }
  if (!chosen) {
    response.status = 404;
    response.body = "no handler for " + request.path;
    return;
  }
  try {
    response = chosen(request);
  } catch (const std::exception& failure) {
    response = TavloLocalServerResponse{};
    response.status = 500;
    response.body = std::string("handler threw: ") + failure.what();
  }
}

void TavloLocalServer::handle(const std::string& pathPrefix, Handler handler) {
  std::lock_guard<std::mutex> lock(stateProtector);
  for (auto& [prefix, existing] : handlers) {
    if (prefix == pathPrefix) {
      existing = std::move(handler);
      return;
    }
  }
  handlers.emplace_back(pathPrefix, std::move(handler));
}

void TavloLocalServer::respond(const std::string& pathPrefix, int status, std::string body, TavloHttpHeaders headers) {
  TavloLocalServerResponse answer = TavloLocalServerResponse::with(status, std::move(body));
  answer.headers = std::move(headers);
  handle(pathPrefix, [answer](const TavloLocalServerRequest&) { return answer; });
}

std::vector<TavloLocalServerRequest> TavloLocalServer::requests() const {
  std::lock_guard<std::mutex> lock(stateProtector);
  return received;
}

std::size_t TavloLocalServer::requestCount() const {
  std::lock_guard<std::mutex> lock(stateProtector);
  return received.size();
}

bool TavloLocalServer::waitForRequests(std::size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(stateProtector);
  return requestArrived.wait_for(lock, timeout, [&] { return received.size() >= count; });
}
