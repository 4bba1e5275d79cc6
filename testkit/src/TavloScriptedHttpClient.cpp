#include "tavlo/testkit/TavloScriptedHttpClient.h"

#include <optional>
#include <utility>

TavloHttpResponse TavloScriptedHttpClient::get(const TavloHttpRequest& request) {
  std::optional<TavloHttpResponse> scripted;
  Handler answering;
  {
    std::lock_guard<std::mutex> lock(scriptProtector);
    received.push_back(request);
    requestArrived.notify_all();
    if (!queued.empty()) {
      scripted = std::move(queued.front());
      queued.pop_front();
    } else {
      answering = handler;
    }
  }
  if (scripted) return std::move(*scripted);
  if (answering) return answering(request);
  return noResponse(unscriptedError);
}

void TavloScriptedHttpClient::enqueue(TavloHttpResponse response) {
  std::lock_guard<std::mutex> lock(scriptProtector);
  queued.push_back(std::move(response));
}

void TavloScriptedHttpClient::setHandler(Handler newHandler) {
  std::lock_guard<std::mutex> lock(scriptProtector);
  handler = std::move(newHandler);
}

std::vector<TavloHttpRequest> TavloScriptedHttpClient::requests() const {
  std::lock_guard<std::mutex> lock(scriptProtector);
  return received;
}

std::size_t TavloScriptedHttpClient::requestCount() const {
  std::lock_guard<std::mutex> lock(scriptProtector);
  return received.size();
}

TavloHttpRequest TavloScriptedHttpClient::lastRequest() const {
  std::lock_guard<std::mutex> lock(scriptProtector);
  return received.empty() ? TavloHttpRequest{} : received.back();
}

bool TavloScriptedHttpClient::waitForRequests(std::size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(scriptProtector);
  return requestArrived.wait_for(lock, timeout, [&] { return received.size() >= count; });
}

std::size_t TavloScriptedHttpClient::pendingAnswers() const {
  std::lock_guard<std::mutex> lock(scriptProtector);
  return queued.size();
}

TavloHttpResponse TavloScriptedHttpClient::answer(long status, std::string body, TavloHttpHeaders headers) {
  TavloHttpResponse response;
  response.status = status;
  response.body = std::move(body);
  response.headers = std::move(headers);
  return response;
}

TavloHttpResponse TavloScriptedHttpClient::noResponse(std::string error) {
  TavloHttpResponse response;
  response.error = std::move(error);
  return response;
}

TavloHttpResponse TavloScriptedHttpClient::invalidRequest(std::string error) {
  TavloHttpResponse response = noResponse(std::move(error));
  response.requestInvalid = true;
  return response;
}
