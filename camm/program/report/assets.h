// What every report page holds, as text: our style and script, and the chart library's.
#ifndef CAMM_PROGRAM_REPORT_ASSETS_H_
#define CAMM_PROGRAM_REPORT_ASSETS_H_

namespace camm::program::report {

extern const char kStyle[];
extern const char kScript[];
extern const char kChartStyle[];  // dygraphs, MIT licence, which its first line names
extern const char kChartScript[];

}  // namespace camm::program::report

#endif  // CAMM_PROGRAM_REPORT_ASSETS_H_
