#include "TavloDemoServer.h"

#include <utility>

TavloDemoServer::TavloDemoServer(Observer observer, int port)
    : observer_(std::move(observer)), server_(TavloLocalServer::Options{false, port}) {
  server_.handle("/m/web/", [this](const TavloLocalServerRequest& request) {
    if (observer_) observer_(request.target);
    return TavloLocalServerResponse::with(200, "OK");
  });
  server_.handle("", [this](const TavloLocalServerRequest& request) {
    if (observer_) observer_(request.target);
    if (request.path.size() <= 1 || request.path.find('/', 1) != std::string::npos) {
      return TavloLocalServerResponse::with(404, "no such endpoint");
    }
    int visit = 0;
    {
      std::lock_guard lock(protector_);
      visit = ++visits_;
    }
    return TavloLocalServerResponse::with(200, "access=full|host=" + baseURL() + "/m/web/|cmsVI=" + std::to_string(visit));
  });
}

std::vector<std::string> TavloDemoServer::targets() const {
  std::vector<std::string> targets;
  for (const auto& request : server_.requests()) targets.push_back(request.target);
  return targets;
}
