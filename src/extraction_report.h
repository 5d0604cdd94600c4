// What a user should know about an extraction, in plain words.
#ifndef MOTRACE_EXTRACTION_REPORT_H_
#define MOTRACE_EXTRACTION_REPORT_H_

#include <string>
#include <vector>

#include "camm_processed_filter.h"
#include "editor/file_media_src.h"

namespace lum::vela {

/// One line for each thing that a user should know. Problems: an input that could not be opened or
/// read whole, a data stream that is missing or not motion metadata, samples that were lost or
/// stand with the wrong partner, outputs that are missing or not whole, nothing at all. Lines that
/// begin with "note: " are about what is as it should be, but may surprise: samples of types that
/// are not extracted, for one. Empty when there is nothing to say.
///
/// Owner's thread, after the run and before the source is stopped.
std::vector<std::string> ExtractionReport(const std::string& source_path,
                                          const FileMediaSrc& source,
                                          const CammProcessedFilter& filter);

/// A path as messages show it: in quotes, with "?" for control characters, which a terminal might
/// obey.
std::string Quoted(const std::string& path);

}  // namespace lum::vela

#endif  // MOTRACE_EXTRACTION_REPORT_H_
