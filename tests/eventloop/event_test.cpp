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
using ::testing::IsEmpty;

TEST(Event, CarriesItsCodeAndNamedValues) {
  std::promise<void> promise;
  const auto event = MakeEvent(-5, nullptr, nullptr);
  EXPECT_EQ(event->what(), -5);
  EXPECT_EQ(event->SetData("index", 3)->SetData("pr", &promise), event);

  int index = 0;
  EXPECT_TRUE(event->GetDataCopy("index", &index));
  EXPECT_EQ(index, 3);
  std::promise<void>* pr = nullptr;
  EXPECT_TRUE(event->GetDataCopy("pr", &pr));
  EXPECT_EQ(pr, &promise);
}

TEST(Event, SetDataReplacesTheValueAndItsType) {
  const auto event = MakeEvent(0, nullptr, nullptr)->SetData("key", 1)->SetData("key", int64_t{2});
  int64_t value = 0;
  EXPECT_TRUE(event->GetDataCopy("key", &value));
  EXPECT_EQ(value, 2);
}

TEST(Event, AMissingKeyIsRecordedAndTouchesNothing) {
  const LogCapture log;
  const auto event = MakeEvent(0, nullptr, nullptr)->SetData("index", 3);
  int value = 42;
  EXPECT_FALSE(event->GetDataCopy("idx", &value));
  EXPECT_EQ(value, 42);
  EXPECT_THAT(log.Lines(), ElementsAre("INFO eventloop/event.h:63 unable to find key: idx"));
}

TEST(Event, AValueOfAnotherTypeThrowsBadCast) {
  const LogCapture log;
  const auto event = MakeEvent(0, nullptr, nullptr)->SetData("index", 3);
  int64_t value = 42;
  EXPECT_THROW(event->GetDataCopy("index", &value), std::bad_cast);
  EXPECT_EQ(value, 42);
  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(Event, WithoutADispatcherAPostIsRecordedAndDropped) {
  int handled = 0;
  const auto handler = std::make_shared<FunctionHandler>([&handled](const Event&) { ++handled; });
  auto dispatcher = std::make_shared<EventDispatcher>();
  const auto event = MakeEvent(1, handler, dispatcher);
  dispatcher.reset();
  const LogCapture log;
  event->Post();
  event->PostWithDelay(10);
  MakeEvent(1, handler, nullptr)->Post();
  const std::string record = "INFO eventloop/event.cpp:37 weak dispatcher is invalid now";
  EXPECT_THAT(log.Lines(), ElementsAre(record, record, record));
  EXPECT_EQ(handled, 0);
}

TEST(Event, KeepsNeitherItsHandlerNorItsDispatcherAlive) {
  const auto handler = std::make_shared<FunctionHandler>();
  const auto dispatcher = std::make_shared<EventDispatcher>();
  const auto event = MakeEvent(1, handler, dispatcher);
  EXPECT_EQ(handler.use_count(), 1);
  EXPECT_EQ(dispatcher.use_count(), 1);
}

}  // namespace
}  // namespace lum
