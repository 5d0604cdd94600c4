// What went wrong in an extraction, in plain words.
#ifndef MOTRACE_EXTRACTION_REPORT_H_
#define MOTRACE_EXTRACTION_REPORT_H_

#include <string>
#include <vector>

#include "camm_processed_filter.h"
#include "editor/file_media_src.h"

/// One line for each thing a user should know: an input that could not be opened or ended early, a
/// data stream that is missing or is no motion metadata, outputs that are missing or not whole.
/// Empty when all went well.
///
/// Owner's thread, after the run and before the source is stopped.
/// @param result what the run returned: 0 when it reached its end, 1 when it was cancelled.
std::vector<std::string> ExtractionProblems(const std::string& source_path,
                                            const lum::FileMediaSrc& source,
                                            const CammProcessedFilter& filter, int32_t result);

#endif  // MOTRACE_EXTRACTION_REPORT_H_
