#include "request/TavloRequest.h"
#include "util/TavloUrlSafety.h"

#include "archive/TavloKeyedArchiver.h"
#include "archive/TavloKeyedUnarchiver.h"
#include "util/TavloLocked.h"
#include "util/TavloLogSafe.h"
#include "util/TavloStringHash.h"
#include "util/TavloText.h"

#include <algorithm>
#include <cmath>

namespace {
const std::string kParametersKey = "TavloRequest_parameters";
const std::string kRequestTypeKey = "TavloRequest_requestType";
const std::string kSendingModeKey = "TavloRequest_sendingMode";
const std::string kLastFailKey = "TavloRequest_lastFail";
const std::string kCreationDateKey = "TavloRequest_creationDate";
const std::string kSerialKey = "TavloRequest_serial";
const std::string kNumberOfFailsKey = "TavloRequest_numberOfFails";
const std::string kStatusKey = "TavloRequest_status";
// Written with two underscores and read with one: a renewal pending when the process
// ended is deliberately not carried over into the next run.
const std::string kShouldRenewSessionWriteKey = "TavloRequest__shouldRenewSession";
const std::string kShouldRenewSessionReadKey = "TavloRequest_shouldRenewSession";
const std::string kTaggerIDKey = "TavloRequest__taggerID";
const std::string kAuthKey = "TavloRequest_auth";

bool isPlainDescriptionCharacter(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '$' ||
         c == '+' || c == '/' || c == ':' || c == '.' || c == '-';
}

// Descriptions go into log lines: a value's line breaks and other controls are written
// as escapes, so no value can end the line it stands in. Appends to `out` rather than
// returning a string: the streaming tagger writes a description on every hit.
void appendQuotedForDescription(std::string& out, const std::string& text) {
  bool plain = !text.empty();
  for (unsigned char c : text) plain = plain && isPlainDescriptionCharacter(c);
  if (plain) {
    out.append(text);
    return;
  }
  std::string quoted = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c;
  }
  quoted += '"';
  out.append(TavloLogSafe(quoted));
}
}  // namespace

void TavloAppendParametersDescription(std::string& out, const TavloParameters* parameters) {
  if (parameters == nullptr) {
    out.append("(null)");
    return;
  }
  size_t length = 3;
  for (const auto& [key, value] : *parameters) length += key.size() + value.size() + 12;
  out.reserve(out.size() + length);
  out += '{';
  out += '\n';
  for (const auto& [key, value] : *parameters) {
    out.append("    ");
    appendQuotedForDescription(out, key);
    out.append(" = ");
    appendQuotedForDescription(out, value);
    out.append(";\n");
  }
  out.append("}");
}

void TavloAppendParametersDescription(std::string& out, const TavloParameters& parameters,
                                      std::span<const std::string_view> added,
                                      const std::vector<std::pair<std::string, std::string>>& replaced) {
  if (added.empty() && replaced.empty()) {
    TavloAppendParametersDescription(out, &parameters);
    return;
  }
  TavloParameters before;
  for (const auto& [key, value] : parameters) {
    if (std::find(added.begin(), added.end(), key) == added.end()) before.emplace(key, value);
  }
  for (const auto& [key, value] : replaced) before.insert_or_assign(key, value);
  TavloAppendParametersDescription(out, &before);
}

std::string TavloParametersDescription(const TavloParameters* parameters) {
  std::string text;
  TavloAppendParametersDescription(text, parameters);
  return text;
}

std::shared_ptr<TavloRequest> TavloRequest::TavloRequestWithParameters(
    std::shared_ptr<const TavloParameters> parameters, int32_t requestType, int64_t sendingMode, TavloString serial,
    std::shared_ptr<TavloTaggerID> taggerID, TavloDate creationDate) {
  return std::make_shared<TavloRequest>(std::move(parameters), requestType, sendingMode, std::move(serial),
                                        std::move(taggerID), creationDate);
}

TavloRequest::TavloRequest() = default;
TavloRequest::~TavloRequest() = default;

TavloRequest::TavloRequest(std::shared_ptr<const TavloParameters> parameters, int32_t requestType,
                           int64_t sendingMode, TavloString serial, std::shared_ptr<TavloTaggerID> taggerID,
                           TavloDate creationDate)
    : requestType_(requestType),
      sendingMode_(sendingMode),
      taggerID_(std::move(taggerID)),
      serial_(std::move(serial)),
      parameters_(std::move(parameters)),
      creationDate_(creationDate) {}

std::shared_ptr<const TavloParameters> TavloRequest::parameters() const { return TavloLockedRead(mutex_, parameters_); }

void TavloRequest::replaceParameters(std::shared_ptr<const TavloParameters> parameters) {
  std::lock_guard lock(mutex_);
  parameters_ = std::move(parameters);
}

int32_t TavloRequest::requestType() const { return requestType_; }

int64_t TavloRequest::sendingMode() const { return sendingMode_; }

std::shared_ptr<TavloTaggerID> TavloRequest::taggerID() const { return taggerID_; }

TavloString TavloRequest::serial() const { return serial_; }

std::optional<TavloDate> TavloRequest::lastFail() const { return TavloLockedRead(mutex_, lastFail_); }

void TavloRequest::setLastFail(std::optional<TavloDate> date) {
  TavloLockedWrite(mutex_, lastFail_, date);
}

std::optional<TavloDate> TavloRequest::creationDate() const { return TavloLockedRead(mutex_, creationDate_); }

void TavloRequest::setCreationDate(std::optional<TavloDate> date) {
  TavloLockedWrite(mutex_, creationDate_, date);
}

int64_t TavloRequest::numberOfFails() const { return TavloLockedRead(mutex_, numberOfFails_); }

void TavloRequest::setNumberOfFails(int64_t count) {
  TavloLockedWrite(mutex_, numberOfFails_, count);
}

int32_t TavloRequest::status() const { return TavloLockedRead(mutex_, status_); }

void TavloRequest::setStatus(int32_t status) {
  TavloLockedWrite(mutex_, status_, status);
}

bool TavloRequest::shouldRenewSessionAfter() const { return TavloLockedRead(mutex_, shouldRenewSessionAfter_); }

void TavloRequest::setShouldRenewSessionAfter(bool renew) {
  TavloLockedWrite(mutex_, shouldRenewSessionAfter_, renew);
}

std::shared_ptr<TavloAuth> TavloRequest::auth() const { return TavloLockedRead(mutex_, auth_); }

void TavloRequest::setAuth(std::shared_ptr<TavloAuth> auth) {
  TavloLockedWrite(mutex_, auth_, std::move(auth));
}

std::shared_ptr<TavloRequest> TavloRequest::copy() const {
  std::lock_guard lock(mutex_);
  auto copied = std::make_shared<TavloRequest>(parameters_, requestType_, sendingMode_, serial_, taggerID_, 0.0);
  copied->lastFail_ = lastFail_;
  copied->creationDate_ = creationDate_;
  copied->auth_ = auth_ ? auth_->copy() : nullptr;
  copied->numberOfFails_ = numberOfFails_;
  copied->status_ = status_;
  copied->shouldRenewSessionAfter_ = shouldRenewSessionAfter_;
  return copied;
}

bool TavloRequest::isEqual(const TavloRequest& other) const { return this == &other; }

uint64_t TavloRequest::hash() const {
  std::lock_guard lock(mutex_);
  const auto fails = static_cast<uint64_t>(numberOfFails_);
  const auto folded = static_cast<int32_t>(static_cast<uint32_t>(fails) ^ static_cast<uint32_t>(fails >> 32));
  return 887503681ULL + 28629151ULL * TavloParametersHash(parameters_.get()) +
         923521ULL * TavloDateHash(lastFail_) + 29791ULL * TavloDateHash(creationDate_) +
         961ULL * static_cast<uint64_t>(static_cast<int64_t>(folded)) + 31ULL * static_cast<uint64_t>(sendingMode_) +
         static_cast<uint64_t>(static_cast<uint32_t>(status_));
}

std::string TavloRequest::description(const TavloEndpoints& endpoints) const {
  std::shared_ptr<const TavloParameters> parameters;
  std::shared_ptr<TavloAuth> auth;
  {
    std::lock_guard lock(mutex_);
    parameters = parameters_;
    auth = auth_;
  }
  TavloString host;
  if (sendingMode_ == TavloSendingModeTimestamped || sendingMode_ == TavloSendingModeDisconnected) {
    host = endpoints.audienceCollectionAddress();
  } else if (auth && auth->currentAccess()) {
    host = auth->currentAccess()->host();
  }
  std::string text = "\"serial ";
  text.append(TavloLogSafe(serial_.value_or("(null)")));
  text.append(" - request type ").append(requestType_ == TavloRequestTypeAudience ? "audience" : "streaming");
  text.append(" - hote ").append(TavloLogSafe(host.value_or("(null)")));
  text.append(" - parameters ").append(TavloParametersDescription(parameters.get()));
  text += "\"";
  return text;
}

std::vector<std::string> TavloRequest::classChain() const { return {"TavloRequest", "NSObject"}; }

void TavloRequest::encodeWithCoder(TavloKeyedArchiver& coder) const {
  std::lock_guard lock(mutex_);
  coder.encodeParameters(parameters_, kParametersKey);
  coder.encodeInteger(requestType_, kRequestTypeKey);
  coder.encodeInteger(sendingMode_, kSendingModeKey);
  coder.encodeDate(lastFail_, kLastFailKey);
  coder.encodeDate(creationDate_, kCreationDateKey);
  coder.encodeString(serial_, kSerialKey);
  coder.encodeInteger(numberOfFails_, kNumberOfFailsKey);
  coder.encodeInteger(status_, kStatusKey);
  coder.encodeBool(shouldRenewSessionAfter_, kShouldRenewSessionWriteKey);
  coder.encodeObject(taggerID_.get(), kTaggerIDKey);
  coder.encodeObject(auth_.get(), kAuthKey);
}

std::shared_ptr<TavloCodable> TavloRequest::initWithCoder(TavloKeyedUnarchiver& coder) {
  // Enumerations are 32 bits wide in memory: a wider archived value keeps its low 32 bits.
  const auto low32 = [](int64_t value) { return static_cast<int32_t>(static_cast<uint32_t>(value)); };
  std::shared_ptr<const TavloParameters> parameters = coder.decodeParameters(kParametersKey);
  const int32_t requestType = low32(coder.decodeInteger(kRequestTypeKey));
  const int64_t sendingMode = coder.decodeInteger(kSendingModeKey);
  const std::optional<TavloDate> lastFail = coder.decodeDate(kLastFailKey);
  const std::optional<TavloDate> creationDate = coder.decodeDate(kCreationDateKey);
  TavloString serial = coder.decodeString(kSerialKey);
  const int64_t numberOfFails = coder.decodeInteger(kNumberOfFailsKey);
  const int32_t status = low32(coder.decodeInteger(kStatusKey));
  const bool shouldRenewSessionAfter = coder.decodeBool(kShouldRenewSessionReadKey);
  std::shared_ptr<TavloTaggerID> taggerID = coder.decodeObjectOfClass<TavloTaggerID>(kTaggerIDKey);
  std::shared_ptr<TavloAuth> auth = coder.decodeObjectOfClass<TavloAuth>(kAuthKey);

  auto request = std::make_shared<TavloRequest>(std::move(parameters), requestType, sendingMode, std::move(serial),
                                                std::move(taggerID), 0.0);
  request->creationDate_ = creationDate;
  request->lastFail_ = lastFail;
  request->numberOfFails_ = numberOfFails;
  request->status_ = status;
  request->shouldRenewSessionAfter_ = shouldRenewSessionAfter;
  request->auth_ = std::move(auth);
  return request;
}

namespace {
// A base address a URL parser would refuse: not http(s), or holding what URLs never carry.
bool isUsableBase(const std::string& base) {
  return (base.rfind("http://", 0) == 0 || base.rfind("https://", 0) == 0) && TavloIsURLSafeText(base);
}

int64_t truncatedSeconds(double seconds) {
  if (!std::isfinite(seconds)) return 0;
  if (seconds >= 9.2e18) return INT64_MAX;
  if (seconds <= -9.2e18) return INT64_MIN;
  return static_cast<int64_t>(seconds);
}

// ASCII letters only, whatever locale the application set: the pieces compared are
// percent-escaped, so they hold nothing else, and the order on the wire must not depend
// on the locale.
unsigned char foldedCase(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte >= 'A' && byte <= 'Z' ? static_cast<unsigned char>(byte | 0x20) : byte;
}

bool lessIgnoringCase(const std::string& a, const std::string& b) {
  return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                      [](char x, char y) { return foldedCase(x) < foldedCase(y); });
}

std::vector<std::string> split(std::string_view text, char separator) {
  std::vector<std::string> pieces;
  size_t start = 0;
  for (;;) {
    const size_t end = text.find(separator, start);
    pieces.emplace_back(text.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start));
    if (end == std::string_view::npos) return pieces;
    start = end + 1;
  }
}

// A collection address with a "?" of its own (a configuration mistake) keeps the URL it
// always gave: the address up to its "?", then its own query's pieces sorted without
// regard to case; the hit's pieces, behind a second "?", fall away.
std::string legacySortedQuery(const std::string& base, const std::vector<std::string>& pieces) {
  std::string assembled = base;
  for (std::size_t i = 0; i < pieces.size(); ++i) assembled.append(i == 0 ? "?" : "&").append(pieces[i]);
  const std::vector<std::string> halves = split(assembled, '?');
  std::vector<std::string> query = split(halves[1], '&');
  std::stable_sort(query.begin(), query.end(), lessIgnoringCase);
  std::string result = halves[0] + "?";
  for (size_t i = 0; i < query.size(); ++i) result += (i == 0 ? "" : "&") + query[i];
  return result;
}
}  // namespace

std::string TavloRequest::urlEncode(std::string_view text) { return TavloPercentEscape(text); }

void TavloRequest::setParameter(const std::string& key, const std::string& value) {
  std::lock_guard lock(mutex_);
  auto updated = parameters_ ? std::make_shared<TavloParameters>(*parameters_) : std::make_shared<TavloParameters>();
  (*updated)[key] = value;
  parameters_ = std::move(updated);
}

TavloString TavloRequest::url(int32_t networkStatus, double clockDelta, const TavloEndpoints& endpoints) {
  const std::shared_ptr<const TavloParameters> parameters = this->parameters();
  const std::shared_ptr<TavloAuth> auth = this->auth();
  const int64_t mode = sendingMode();
  const std::shared_ptr<TavloAccess> access = auth ? auth->currentAccess() : nullptr;
  if (!access) return std::nullopt;

  const bool timestamped = mode == TavloSendingModeTimestamped || mode == TavloSendingModeDisconnected;
  const std::string base = timestamped ? endpoints.audienceCollectionAddress() + access->serial().value_or("")
                                       : access->host().value_or("");
  const std::string network = networkStatus == 2 ? "Wifi" : "GSM";

  // The query's pieces, "key=value" each, escaped; sorted below without regard to case,
  // ties in the order they were made.
  std::vector<std::string> pieces;
  pieces.reserve((parameters ? parameters->size() : 0) + 4);
  pieces.push_back("m_ntwk=" + network);
  if (mode != TavloSendingModeLive) {
    pieces.push_back("ts=" + std::to_string(truncatedSeconds(creationDate().value_or(0) + clockDelta)));
    pieces.push_back(std::string("tt=") + (mode == TavloSendingModeTimestamped ? "c" : "d"));
  }
  if (parameters) {
    for (const auto& [key, value] : *parameters) {
      if (key == "m_ntwk") continue;
      std::string piece = urlEncode(key);
      piece += '=';
      piece += urlEncode(value);
      pieces.push_back(std::move(piece));
    }
  }
  if (requestType() == TavloRequestTypeStreaming) {
    const std::shared_ptr<TavloSession> session = auth->currentSession();
    pieces.push_back("cmsVI=" + urlEncode(session ? session->cmsVI().value_or("") : ""));
  }
  setParameter("m_ntwk", network);

  // What a tampered queue file brings back never gets past the checks an authorisation
  // answer gets: a serial that is one path segment, a host that cannot swallow the query.
  const bool usable = timestamped ? isUsableBase(base) && TavloIsUsableSerial(access->serial().value_or(""))
                                  : TavloIsUsableHostURL(base);
  if (!usable) return std::nullopt;
  if (base.find('?') != std::string::npos) return legacySortedQuery(base, pieces);
  std::stable_sort(pieces.begin(), pieces.end(), lessIgnoringCase);
  std::string url = base;
  url += '?';
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    if (i != 0) url += '&';
    url += pieces[i];
  }
  return url;
}

void TavloRequest::setTheRank(int64_t rank) { setParameter("cmsRK", std::to_string(rank)); }

void TavloRequest::copyParametersOnThisThread() {
  std::shared_ptr<const TavloParameters> copy;
  std::shared_ptr<const TavloParameters> original = parameters();
  if (original) copy = std::make_shared<const TavloParameters>(*original);
  std::lock_guard lock(mutex_);
  // Replaced only if unchanged meanwhile: a newer dictionary is never undone.
  if (parameters_ == original) parameters_ = std::move(copy);
}

void TavloRequest::transformToStop() {
  std::lock_guard lock(mutex_);
  auto updated = parameters_ ? std::make_shared<TavloParameters>(*parameters_) : std::make_shared<TavloParameters>();
  const auto rank = updated->find("cmsRK");
  const int64_t current = rank == updated->end() ? 0 : TavloLeadingInteger(rank->second);
  (*updated)["cmsPS"] = "12";
  (*updated)["cmsRK"] = std::to_string(current == INT64_MAX ? current : current + 1);
  parameters_ = std::move(updated);
}
