#include "TavloQueueReport.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <system_error>

#include "TavloJsonWriter.h"
#include "TavloToolText.h"
#include "agent/TavloSentJournal.h"
#include "archive/TavloKeyedUnarchiver.h"
#include "auth/TavloAuth.h"
#include "identity/TavloTaggerID.h"
#include "request/TavloRecordClasses.h"
#include "request/TavloRequest.h"

namespace {

std::string systemMessage(int error) { return std::generic_category().message(error); }

// Closes the descriptor on every way out of fromFile.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

const TavloRequest* requestOf(const TavloCodable& element) { return dynamic_cast<const TavloRequest*>(&element); }

std::string classNameOf(const TavloCodable& element) {
  const std::vector<std::string> chain = element.classChain();
  return chain.empty() ? std::string("an unnamed record") : chain.front();
}

// The kind shown for an element: what the agent would make of it.
std::string kindOf(const TavloCodable& element) {
  const TavloRequest* request = requestOf(element);
  if (request == nullptr) return "other";
  if (request->isClearCacheMarker()) return "marker";
  switch (request->requestType()) {
    case TavloRequestTypeAudience:
      return "audience";
    case TavloRequestTypeStreaming:
      return "streaming";
    default:
      return "unknown";
  }
}

std::optional<std::string> sendingModeName(int64_t mode) {
  switch (mode) {
    case TavloSendingModeTimestamped:
      return "timestamped";
    case TavloSendingModeLive:
      return "live";
    case TavloSendingModeDisconnected:
      return "disconnected";
    default:
      return std::nullopt;
  }
}

std::optional<std::string> statusName(int64_t status) {
  switch (status) {
    case TavloRequestStatusNew:
      return "new";
    case TavloRequestStatusSending:
      return "sending";
    case TavloRequestStatusFailed:
      return "failed";
    default:
      return std::nullopt;
  }
}

std::optional<std::string> accessModeName(int64_t mode) {
  switch (mode) {
    case TavloAccessModeFull:
      return "full";
    case TavloAccessModeRestricted:
      return "restricted";
    case TavloAccessModeDenied:
      return "denied";
    default:
      return std::nullopt;
  }
}

// "disconnected (2)", or "unknown (7)" for a value the library does not define.
std::string namedValue(const std::optional<std::string>& name, int64_t value) {
  return name.value_or("unknown") + " (" + std::to_string(value) + ")";
}

std::string printable(const TavloString& text) { return text ? TavloPrintable(*text) : "nil"; }

std::string yesNo(bool value) { return value ? "yes" : "no"; }

std::string dateText(const std::optional<TavloDate>& date) {
  if (!date) return "nil";
  const std::optional<std::string> iso = TavloISO8601(*date);
  return iso.value_or("outside years 1 to 9999") + " (" + TavloShortestNumber(*date) + ")";
}

std::string taggerText(const std::shared_ptr<TavloTaggerID>& tagger) {
  if (!tagger) return "nil";
  std::string partial = std::to_string(tagger->partialID());
  if (tagger->partialID() == TavloTaggerID::kAudiencePartialID) partial = "audience (" + partial + ")";
  return "serial " + printable(tagger->serial()) + ", partial id " + partial + ", " +
         (tagger->isStreamTagger() ? "streaming" : "not streaming");
}

void appendRequestText(std::string& out, const TavloRequest& request) {
  const auto line = [&out](const char* label, const std::string& value) {
    out += "  ";
    out += label;
    out.append(16 - std::string_view(label).size(), ' ');
    out += value;
    out += '\n';
  };
  line("sending mode", namedValue(sendingModeName(request.sendingMode()), request.sendingMode()));
  line("status", namedValue(statusName(request.status()), request.status()));
  line("fails", std::to_string(request.numberOfFails()));
  line("created", dateText(request.creationDate()));
  line("last fail", dateText(request.lastFail()));
  line("serial", printable(request.serial()));
  line("tagger id", taggerText(request.taggerID()));
  line("renew session", yesNo(request.shouldRenewSessionAfter()));

  const std::shared_ptr<TavloAuth> auth = request.auth();
  if (!auth) {
    line("authorisation", "nil");
  } else {
    const std::shared_ptr<TavloAccess>& access = auth->currentAccess();
    const std::shared_ptr<TavloSession>& session = auth->currentSession();
    if (access) {
      line("authorisation", "mode " + namedValue(accessModeName(access->accessMode()), access->accessMode()) +
                                ", host " + printable(access->host()) + ", first hit sent " +
                                yesNo(access->firstHitSuccessfullySent()));
      line("", "access serial " + printable(access->serial()) + ", base URL " + printable(access->baseURL()));
    } else {
      line("authorisation", "no access");
    }
    line("", session ? "session serial " + printable(session->serial()) + ", cmsVI " + printable(session->cmsVI())
                     : std::string("no session"));
    line("", std::string("default values ") + yesNo(auth->isDefaultValues()));
  }

  const std::shared_ptr<const TavloParameters> parameters = request.parameters();
  if (!parameters) {
    line("parameters", "nil");
    return;
  }
  line("parameters", std::to_string(parameters->size()));
  for (const auto& [key, value] : *parameters) out += "    " + TavloPrintable(key) + " = " + TavloPrintable(value) + "\n";
}

void writeDate(TavloJsonWriter& json, const std::optional<TavloDate>& date) {
  if (!date) {
    json.null();
    return;
  }
  const std::optional<std::string> iso = TavloISO8601(*date);
  json.beginObject();
  json.key("iso8601").stringOrNull(iso ? TavloString(*iso) : std::nullopt);
  json.key("epoch").number(*date);
  json.endObject();
}

void writeAuth(TavloJsonWriter& json, const std::shared_ptr<TavloAuth>& auth) {
  if (!auth) {
    json.null();
    return;
  }
  json.beginObject();
  json.key("defaultValues").boolean(auth->isDefaultValues());
  json.key("access");
  if (const std::shared_ptr<TavloAccess>& access = auth->currentAccess()) {
    const std::optional<std::string> mode = accessModeName(access->accessMode());
    json.beginObject();
    json.key("mode").string(mode.value_or("unknown"));
    json.key("modeValue").integer(access->accessMode());
    json.key("host").stringOrNull(access->host());
    json.key("serial").stringOrNull(access->serial());
    json.key("baseURL").stringOrNull(access->baseURL());
    json.key("firstHitSent").boolean(access->firstHitSuccessfullySent());
    json.endObject();
  } else {
    json.null();
  }
  json.key("session");
  if (const std::shared_ptr<TavloSession>& session = auth->currentSession()) {
    json.beginObject();
    json.key("serial").stringOrNull(session->serial());
    json.key("cmsVI").stringOrNull(session->cmsVI());
    json.endObject();
  } else {
    json.null();
  }
  json.endObject();
}

void writeRequest(TavloJsonWriter& json, const TavloRequest& request) {
  json.key("requestType").integer(request.requestType());
  json.key("sendingMode").string(sendingModeName(request.sendingMode()).value_or("unknown"));
  json.key("sendingModeValue").integer(request.sendingMode());
  json.key("status").string(statusName(request.status()).value_or("unknown"));
  json.key("statusValue").integer(request.status());
  json.key("fails").integer(request.numberOfFails());
  json.key("created");
  writeDate(json, request.creationDate());
  json.key("lastFail");
  writeDate(json, request.lastFail());
  json.key("serial").stringOrNull(request.serial());
  json.key("renewSession").boolean(request.shouldRenewSessionAfter());
  json.key("taggerID");
  if (const std::shared_ptr<TavloTaggerID> tagger = request.taggerID()) {
    json.beginObject();
    json.key("serial").stringOrNull(tagger->serial());
    json.key("partialID").integer(tagger->partialID());
    json.key("streaming").boolean(tagger->isStreamTagger());
    json.endObject();
  } else {
    json.null();
  }
  json.key("auth");
  writeAuth(json, request.auth());
  json.key("parameters");
  if (const std::shared_ptr<const TavloParameters> parameters = request.parameters()) {
    json.beginObject();
    for (const auto& [key, value] : *parameters) json.key(key).string(value);
    json.endObject();
  } else {
    json.null();
  }
}

}  // namespace

TavloQueueReport TavloQueueReport::fromData(std::string_view data) {
  TavloQueueReport report;
  std::string why;
  std::optional<std::vector<std::shared_ptr<TavloCodable>>> decoded =
      TavloKeyedUnarchiver::unarchivedArrayWithData(data, TavloRecordClasses(), &why);
  if (!decoded) {
    report.problems_.push_back(why.empty() ? std::string("the archive could not be read") : why);
    return report;
  }
  report.readable_ = true;
  report.elements_ = std::move(*decoded);
  if (!why.empty()) report.problems_.push_back(why);  // elements left out
  report.checkElements();
  return report;
}

TavloQueueReport TavloQueueReport::fromFile(const std::string& path) {
  TavloQueueReport unreadable;
  // Non-blocking, so that naming a FIFO by mistake does not hang the tool on open.
  Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (file.get() < 0) {
    unreadable.problems_.push_back("cannot open the file: " + systemMessage(errno));
    return unreadable;
  }
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) {
    unreadable.problems_.push_back("cannot examine the file: " + systemMessage(errno));
    return unreadable;
  }
  if (!S_ISREG(status.st_mode)) {
    unreadable.problems_.push_back("not a regular file");
    return unreadable;
  }
  constexpr std::size_t limit = TavloKeyedUnarchiver::maxArchiveBytes;
  const auto tooLarge = [&](std::size_t size) {
    unreadable.problems_.push_back("file of " + std::to_string(size) + " bytes exceeds the limit of " +
                                   std::to_string(limit) + " bytes the library reads");
    return unreadable;
  };
  if (static_cast<uint64_t>(status.st_size) > limit) return tooLarge(static_cast<std::size_t>(status.st_size));

  // Read up to one byte past the limit: a file that grew since fstat is still caught.
  std::string data;
  char buffer[65536];
  while (data.size() <= limit) {
    const ssize_t count = ::read(file.get(), buffer, sizeof buffer);
    if (count == 0) break;
    if (count < 0) {
      if (errno == EINTR) continue;
      unreadable.problems_.push_back("cannot read the file: " + systemMessage(errno));
      return unreadable;
    }
    data.append(buffer, static_cast<std::size_t>(count));
  }
  if (data.size() > limit) return tooLarge(data.size());
  TavloQueueReport report = fromData(data);
  report.fileFingerprint_ = TavloSentJournal::fingerprint(data);
  return report;
}

void TavloQueueReport::checkElements() {
  for (std::size_t index = 0; index < elements_.size(); ++index) {
    const std::string element = "element #" + std::to_string(index);
    const TavloRequest* request = requestOf(*elements_[index]);
    if (request == nullptr) {
      problems_.push_back(element + " is a " + classNameOf(*elements_[index]) + ", not a request");
      continue;
    }
    if (request->isClearCacheMarker()) continue;  // a marker has no fields to check
    if (kindOf(*request) == "unknown") {
      problems_.push_back(element + " has an unknown request type " + std::to_string(request->requestType()));
    }
    if (!sendingModeName(request->sendingMode())) {
      problems_.push_back(element + " has an unknown sending mode " + std::to_string(request->sendingMode()));
    }
    if (!statusName(request->status())) {
      problems_.push_back(element + " has an unknown status " + std::to_string(request->status()));
    }
    if (!request->creationDate()) problems_.push_back(element + " has no creation date");
    if (!request->taggerID()) problems_.push_back(element + " has no tagger identity");
    if (!request->parameters()) problems_.push_back(element + " has no parameters");
  }
}

std::string TavloQueueReport::summary() const {
  std::size_t counts[5] = {};
  const char* const names[5] = {"audience", "streaming", "clear-cache marker", "unknown type", "other record"};
  for (const auto& element : elements_) {
    const std::string kind = kindOf(*element);
    const std::size_t slot = kind == "audience" ? 0 : kind == "streaming" ? 1 : kind == "marker" ? 2 : kind == "unknown" ? 3 : 4;
    ++counts[slot];
  }
  std::string out = std::to_string(elements_.size()) + (elements_.size() == 1 ? " element" : " elements");
  const char* separator = ": ";
  for (std::size_t slot = 0; slot < 5; ++slot) {
    if (counts[slot] == 0) continue;
    out += separator + std::to_string(counts[slot]) + " " + names[slot];
    separator = ", ";
  }
  return out;
}

std::string TavloQueueReport::text(const std::string& name) const {
  std::string out = name + ": ";
  if (!readable_) return out + "nothing could be read\n";
  out += summary() + "\n";
  for (std::size_t index = 0; index < elements_.size(); ++index) {
    const TavloCodable& element = *elements_[index];
    const TavloRequest* request = requestOf(element);
    out += "#" + std::to_string(index) + " ";
    if (request == nullptr) {
      out += "not a request: " + TavloPrintable(classNameOf(element)) + "\n";
    } else if (request->isClearCacheMarker()) {
      out += "clear-cache marker\n";
    } else {
      const std::string kind = kindOf(element);
      out += (kind == "unknown" ? "request of unknown type " + std::to_string(request->requestType()) : kind + " request") +
             "\n";
      appendRequestText(out, *request);
    }
  }
  return out;
}

std::string TavloQueueReport::json(const std::string& name) const {
  TavloJsonWriter json;
  json.beginObject();
  json.key("file").string(name);
  json.key("readable").boolean(readable_);
  json.key("valid").boolean(isValid());
  json.key("problems").beginArray();
  for (const std::string& problem : problems_) json.string(problem);
  json.endArray();
  json.key("count").integer(static_cast<int64_t>(elements_.size()));
  json.key("requests").beginArray();
  for (std::size_t index = 0; index < elements_.size(); ++index) {
    const TavloCodable& element = *elements_[index];
    json.beginObject();
    json.key("index").integer(static_cast<int64_t>(index));
    json.key("kind").string(kindOf(element));
    if (const TavloRequest* request = requestOf(element)) {
      if (!request->isClearCacheMarker()) writeRequest(json, *request);
    } else {
      json.key("class").string(classNameOf(element));
    }
    json.endObject();
  }
  json.endArray();
  json.endObject();
  return json.text() + "\n";
}
