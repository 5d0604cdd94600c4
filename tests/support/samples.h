// What the samples are made of, under the tests' own namespace.
#ifndef MOTRACE_TESTS_SUPPORT_SAMPLES_H_
#define MOTRACE_TESTS_SUPPORT_SAMPLES_H_

#include "samples/av_encode.h"     // IWYU pragma: export
#include "samples/bytes.h"         // IWYU pragma: export
#include "samples/camera.h"        // IWYU pragma: export
#include "samples/mp4_layouts.h"   // IWYU pragma: export
#include "support/camm_samples.h"  // IWYU pragma: export

namespace motrace::testing {
using namespace samples;  // NOLINT(google-build-using-namespace): nearly every test makes some
}  // namespace motrace::testing

#endif  // MOTRACE_TESTS_SUPPORT_SAMPLES_H_
