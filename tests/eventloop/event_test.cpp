#include "eventloop/event.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <string>

#include "eventloop/event_dispatcher.h"
#include "eventloop/loop_testing.h"
#include "support/log_capture.h"

namespace lum {
namespace {

using ::motrace::testing::FunctionHandler;
using ::motrace::testing::LogCapture;
using ::testing::ElementsAre;

TEST(Event, CarriesItsCodeAndNamedValues) {
  const LogCapture log;
  std::promise<void> promise;
  const auto event = MakeEvent(-5, nullptr, nullptr);
  EXPECT_EQ(event->what(), -5);
  EXPECT_EQ(event->SetData("index", 2)->SetData("index", 3)->SetData("pr", &promise), event);
  int index = 0;
  EXPECT_TRUE(event->GetDataCopy("index", &index));
  EXPECT_EQ(index, 3) << "the later value";
  std::promise<void>* pr = nullptr;
  EXPECT_TRUE(event->GetDataCopy("pr", &pr));
  EXPECT_EQ(pr, &promise);

  int64_t untouched = 42;
  EXPECT_THROW(event->GetDataCopy("index", &untouched), std::bad_cast);
  EXPECT_FALSE(event->GetDataCopy("idx", &untouched));
  EXPECT_EQ(untouched, 42);
  EXPECT_THAT(log.Lines(), ElementsAre("INFO eventloop/event.h:63 unable to find key: idx"));
}

TEST(Event, WithoutADispatcherAPostIsRecordedAndDropped) {
  const auto handler = std::make_shared<FunctionHandler>([](const Event&) { FAIL(); });
  auto dispatcher = std::make_shared<EventDispatcher>();
  const auto event = MakeEvent(1, handler, dispatcher);
  EXPECT_EQ(handler.use_count(), 1) << "an event keeps neither alive";
  EXPECT_EQ(dispatcher.use_count(), 1);
  dispatcher.reset();
  const LogCapture log;
  event->Post();
  event->PostWithDelay(10);
  MakeEvent(1, handler, nullptr)->Post();
  const std::string record = "INFO eventloop/event.cpp:37 weak dispatcher is invalid now";
  EXPECT_THAT(log.Lines(), ElementsAre(record, record, record));
}

}  // namespace
}  // namespace lum
