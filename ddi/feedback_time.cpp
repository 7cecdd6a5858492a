#include "ddi/feedback_time.h"

#include <iomanip>
#include <sstream>

std::string feedbackTime(std::time_t when) {
  std::tm utc{};
  if (gmtime_r(&when, &utc) == nullptr) return std::string();
  std::ostringstream text;
  text << std::put_time(&utc, "%Y%m%dT%H%M%S");
  return text.str();
}

std::string feedbackTime() { return feedbackTime(std::time(nullptr)); }
