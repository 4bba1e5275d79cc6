#include "agent/TavloDefaultParameters.h"

#include <cctype>
#include <cmath>
#include <cstdio>

#include "platform/TavloLogger.h"
#include "tavlo/TavloVersion.h"
#include "util/TavloLogSafe.h"

namespace {
std::string formatted(const char* format, double value) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, format, value);
  return buffer;
}

}  // namespace

TavloDefaultParameters::TavloDefaultParameters(const TavloPlatform& platform)
    : deviceInfo_(platform.deviceInfo),
      random_(platform.random),
      advertisingIdProvider_(platform.advertisingIdProvider),
      logSink_(platform.logSink),
      uuidHandler_(platform.secureStore, platform.random, platform.logSink) {}

std::string TavloDefaultParameters::TavloVersion() { return TavloVersionString; }

std::shared_ptr<const TavloParameters> TavloDefaultParameters::defaultParametersForRequest() {
  return std::make_shared<const TavloParameters>(defaultParameters());
}

TavloDefaultParameters::HitDraw TavloDefaultParameters::drawForHit() {
  HitDraw draw;
  draw.n = random_->nextUInt32();
  draw.uid = uuidHandler_.UUID();
  return draw;
}

TavloParameters TavloDefaultParameters::defaultParametersWith(HitDraw draw) {
  std::call_once(deviceFactsMade_, [this] {
    const std::optional<TavloScreen> screen = deviceInfo_->mainScreen();
    deviceFacts_ = {
        {"scp", "32"},
        {"tag_type", "apps"},
        {"v", TavloVersion()},
        {"scw", screen ? formatted("%.0f", screen->width) : "0"},
        {"sch", screen ? formatted("%.0f", screen->height) : "0"},
        {"m_os", deviceInfo_->model()},
        {"m_fw", deviceInfo_->systemVersion()},
        {"ds", formatted("%.1f", screenDiagonal())},
        {"tn", "tvOS"},
    };
  });
  TavloParameters parameters = deviceFacts_;
  parameters.emplace("n", std::to_string(draw.n));
  parameters.emplace("uid", draw.uid ? std::move(*draw.uid) : std::string("-"));
  return parameters;
}

const std::string& TavloDefaultParameters::userAgent() {
  std::call_once(userAgentMade_, [this] { userAgent_ = TavloUserAgentOf(*deviceInfo_); });
  return userAgent_;
}

TavloString TavloDefaultParameters::appleDID() {
  if (!advertisingIdProvider_) {
    TavloLogger::logTo(logSink_.get(), "Can't get did", TavloLoggingModeInfo);
    return std::nullopt;
  }
  TavloString identifier = advertisingIdProvider_->advertisingIdentifier();
  if (identifier) {
    for (char& c : *identifier) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
  TavloLogger::logTo(logSink_.get(), "Using did : " + TavloLogSafe(identifier.value_or("(null)")),
                     TavloLoggingModeInfo);
  return identifier;
}

double TavloDefaultParameters::screenDiagonal() {
  const std::optional<TavloScreen> screen = deviceInfo_->mainScreen();
  double scale = screen ? screen->nativeScale.value_or(screen->scale) : 1.0;
  // The scale cancels out; a missing or nonsensical one must not turn the result into NaN.
  if (!(scale > 0) || !std::isfinite(scale)) scale = 1.0;
  const double width = screen ? screen->width : 0.0;
  const double height = screen ? screen->height : 0.0;
  const std::optional<int32_t> idiom = deviceInfo_->userInterfaceIdiom();
  const double ppi = (!idiom || *idiom == TavloUserInterfaceIdiomPhone) ? 163.0 : 132.0;
  const double diagonal = std::sqrt(std::pow(width * scale, 2) + std::pow(height * scale, 2)) / (ppi * scale);
  return std::isfinite(diagonal) ? diagonal : 0.0;
}
