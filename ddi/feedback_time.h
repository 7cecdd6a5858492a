#ifndef TAMREL_DDI_FEEDBACK_TIME_H_
#define TAMREL_DDI_FEEDBACK_TIME_H_

#include <ctime>
#include <string>

// The feedback time stamp: UTC, "%Y%m%dT%H%M%S" (15 characters).
std::string feedbackTime(std::time_t when);
std::string feedbackTime();

#endif  // TAMREL_DDI_FEEDBACK_TIME_H_
