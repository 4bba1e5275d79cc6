#include "TavloDemoServer.h"

#include <httplib.h>

#include <stdexcept>
#include <utility>

TavloDemoServer::TavloDemoServer(Observer observer) : observer_(std::move(observer)) {
  server_ = std::make_unique<httplib::Server>();
  // An idle keep-alive connection holds a worker, and stopping waits for the workers.
  server_->set_keep_alive_max_count(1);
  server_->set_keep_alive_timeout(1);

  server_->Get(".*", [this](const httplib::Request& request, httplib::Response& response) {
    const std::string path = request.target.substr(0, request.target.find('?'));
    int visit = 0;
    {
      std::lock_guard lock(protector_);
      targets_.push_back(request.target);
      if (!path.starts_with("/m/web/")) visit = ++visits_;
    }
    if (observer_) observer_(request.target);
    if (path.starts_with("/m/web/")) {
      response.set_content("OK", "text/plain");
    } else if (path.size() > 1 && path.find('/', 1) == std::string::npos) {
      response.set_content("access=full|host=" + baseURL_ + "/m/web/|cmsVI=" + std::to_string(visit), "text/plain");
    } else {
      response.status = 404;
      response.set_content("no such endpoint", "text/plain");
    }
  });

  const int port = server_->bind_to_any_port("127.0.0.1");
  if (port <= 0) throw std::runtime_error("cannot listen on 127.0.0.1");
  baseURL_ = "http://127.0.0.1:" + std::to_string(port);
  listener_ = std::thread([this] {
    server_->listen_after_bind();
    listenerEnded_ = true;
  });
  // cpp-httplib ignores stop() until the server reports running, and the listener would
  // then never end: nothing returns before it does (it is set as listening begins).
  while (!server_->is_running()) {
    if (listenerEnded_) {
      listener_.join();
      throw std::runtime_error("the server stopped before it began to listen");
    }
    std::this_thread::yield();
  }
}

TavloDemoServer::~TavloDemoServer() { stop(); }

void TavloDemoServer::stop() {
  if (!listener_.joinable()) return;
  server_->stop();
  listener_.join();
}

std::vector<std::string> TavloDemoServer::targets() const {
  std::lock_guard lock(protector_);
  return targets_;
}
