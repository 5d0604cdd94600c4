// The report: one self-contained HTML page that shows a recording.
#ifndef CAMM_PROGRAM_REPORT_PAGE_H_
#define CAMM_PROGRAM_REPORT_PAGE_H_

#include <string>
#include <string_view>

#include "camm/recording.h"

namespace camm::program::report {

/// A path as a relative address.
std::string UrlPath(std::string_view path);

/// The list of several reports.
/// @param items `<li>` elements.
std::string Index(const std::string& items);

/// The page: figures, charts of every type over time, findings, the way over ground. Nothing is
/// fetched; its size does not grow with the recording: of many samples it holds the least and the
/// greatest of equal spans of time, at several resolutions.
/// @param name of the file, which is opened again for its edit lists.
std::string Page(const std::string& name, const Recording& recording);

}  // namespace camm::program::report

#endif  // CAMM_PROGRAM_REPORT_PAGE_H_
