// What reading found, in words and as JSON.
#ifndef CAMM_PROGRAM_SUMMARY_TEXT_H_
#define CAMM_PROGRAM_SUMMARY_TEXT_H_

#include <string>

#include "camm/summary.h"

namespace camm::program {

/// A screen for people, with a line feed at its end.
std::string SummaryText(const std::string& name, const Summary& info);

/// All figures as one object; null where a figure is unknown.
std::string SummaryJson(const std::string& name, const Summary& info);

/// In words, why a file could not be read or not whole; empty where it was.
std::string WhyUnread(const ReadResult& result);

}  // namespace camm::program

#endif  // CAMM_PROGRAM_SUMMARY_TEXT_H_
