// CTORVThread_test.cpp - one receiver: its thread numbers, what it posts, and the events
// themselves.
#include "zarn/utils/CTORVThread.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "ChildTest.h"
#include "DescriptorShortage.h"
#include "TorvSink.h"
#include "VirtualSlot.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWMessageBlock;
using utils::CTORVEventInit;
using utils::CTORVEventSendData;
using utils::CTORVEventUnInit;
using utils::CTORVThread;
using utils::ITORVSink;

CAWMessageBlock Text(const char* text) {
  return CAWMessageBlock(text, std::char_traits<char>::length(text), CAWMessageBlock::borrow);
}

class Receiver : public ::testing::Test {
 protected:
  ~Receiver() override { WaitForDelivery(); }  // events name the receiver

  RecordingSink& sink = RecordingSink::Make();
  int argument = 0;
  CTORVThread receiver{&sink, &argument};
};

// --- thread numbers ---

TEST_F(Receiver, FirstContextOfATnoStays) {
  int first = 1;
  int second = 2;
  EXPECT_EQ(receiver.RegisterTno(7, &first), AW_OK);
  EXPECT_EQ(receiver.RegisterTno(7, &second), AW_ERROR_FAILURE);
  void* context = nullptr;
  EXPECT_EQ(receiver.GetTno(7, context), AW_OK);
  EXPECT_EQ(context, &first);
}

TEST_F(Receiver, UnknownTnoLeavesTheContextAlone) {
  int before = 0;
  void* context = &before;
  EXPECT_EQ(receiver.GetTno(7, context), AW_ERROR_FAILURE);
  EXPECT_EQ(context, &before);
}

TEST_F(Receiver, NullContextIsAContext) {
  int before = 0;
  void* context = &before;
  EXPECT_EQ(receiver.RegisterTno(0, nullptr), AW_OK);
  EXPECT_EQ(receiver.GetTno(0, context), AW_OK);
  EXPECT_EQ(context, nullptr);
}

TEST_F(Receiver, UnRegisteringRemovesNothing) {
  ASSERT_EQ(receiver.RegisterTno(7, &argument), AW_OK);
  EXPECT_EQ(receiver.UnRegisterTno(7), AW_ERROR_FAILURE);
  void* context = nullptr;
  EXPECT_EQ(receiver.GetTno(7, context), AW_OK);
  EXPECT_EQ(context, &argument);
}

TEST_F(Receiver, EveryTnoThereIsCanBeRegistered) {
  std::vector<int> contexts(65536);
  for (std::size_t tno = 0; tno < contexts.size(); ++tno)
    ASSERT_EQ(receiver.RegisterTno(static_cast<unsigned short>(tno), &contexts[tno]), AW_OK);
  for (std::size_t tno = 0; tno < contexts.size(); ++tno) {
    void* context = nullptr;
    ASSERT_EQ(receiver.GetTno(static_cast<unsigned short>(tno), context), AW_OK);
    ASSERT_EQ(context, &contexts[tno]);
  }
}

TEST(ReceiverEnd, UnRegisteringAnUnknownTnoStopsTheProcessAndNamesIt) {
  if (ChildTest::Role() == "unknown") {
    CTORVThread receiver(&RecordingSink::Make(), nullptr);
    receiver.RegisterTno(4711, nullptr);
    receiver.UnRegisterTno(4712);
    std::exit(0);
  }
  ChildTest child("unknown");
  EXPECT_EQ(child.Wait(), -SIGABRT);
  const std::string errors = child.GetErrors();
  const auto at = errors.find("Tno 4712");
  ASSERT_NE(at, std::string::npos) << errors;
  EXPECT_EQ(errors.find("4712", at + 8), std::string::npos) << "told more than once: " << errors;
}

// --- posting ---

TEST(ReceiverWithoutATaskThread, IsServedOnceThereCanBeOne) {
  if (ChildTest::Role() == "shortage") {
    RecordingSink& sink = RecordingSink::Make();
    std::optional<DescriptorShortage> shortage(std::in_place);
    CTORVThread receiver(&sink, nullptr);
    const bool refused = receiver.NotifyInitOk() == AW_ERROR_FAILURE;
    shortage.reset();
    CAWMessageBlock block = Text("hello");
    const bool taken = receiver.PostTORVMessage(block, 3, nullptr) == AW_OK;
    std::exit(refused && taken && sink.Told() == "hello" ? 0 : 1);
  }
  ChildTest child("shortage");
  EXPECT_EQ(child.Wait(), 0) << child.GetErrors();
}

TEST_F(Receiver, NoticesAndMessagesArriveInTheOrderOfTheirPosts) {
  CAWMessageBlock block = Text("hello");
  EXPECT_EQ(receiver.Init(), AW_OK);
  EXPECT_EQ(receiver.NotifyInitOk(), AW_OK);
  EXPECT_EQ(receiver.PostTORVMessage(block, 3, &argument), AW_OK);
  EXPECT_EQ(receiver.NotifyUnInit(), AW_OK);
  EXPECT_EQ(sink.Told(), "init hello uninit");
  EXPECT_EQ(sink.deliveries[0].pointer, &argument);
  EXPECT_EQ(sink.deliveries[1].number, 3);
  EXPECT_EQ(sink.deliveries[1].pointer, &argument);
  const auto task = TaskThread()->Call([] { return std::this_thread::get_id(); });
  for (const auto& delivery : sink.deliveries) EXPECT_EQ(delivery.thread, task);
}

TEST_F(Receiver, NothingIsDeliveredDuringThePost) {
  CAWMessageBlock block = Text("later");
  TaskThread()->Call([&] {
    receiver.NotifyInitOk();
    receiver.PostTORVMessage(block, 1, nullptr);
    EXPECT_TRUE(sink.deliveries.empty());
  });
  EXPECT_EQ(sink.Told(), "init later");
}

TEST_F(Receiver, SenderMayChangeAndFreeItsBlockAtOnce) {
  auto* block = new CAWMessageBlock(100);
  block->Write("one", 3);
  TaskThread()->Call([&] {
    receiver.PostTORVMessage(*block, 1, nullptr);
    receiver.PostTORVMessage(*block, 2, nullptr);
    EXPECT_EQ(block->FlattenChained(), "one");  // not consumed
    block->Write(" more", 5);
    receiver.PostTORVMessage(*block, 3, nullptr);
    block->AdvanceReadPtr(4);
    block->DestroyChained();
  });
  EXPECT_EQ(sink.Told(), "one one one more");
}

TEST_F(Receiver, BorrowedBytesMayBeOverwrittenAtOnce) {
  char bytes[] = "first";
  TaskThread()->Call([&] {
    CAWMessageBlock block(bytes, 5, CAWMessageBlock::borrow);
    receiver.PostTORVMessage(block, 1, nullptr);
    std::fill(bytes, bytes + 5, 'x');
  });
  EXPECT_EQ(sink.Told(), "first");
}

TEST_F(Receiver, WholeChainIsDelivered) {
  CAWMessageBlock head = Text("one ");
  auto* tail = new CAWMessageBlock(10);
  tail->Write("two", 3);
  head.Append(tail);
  EXPECT_EQ(receiver.PostTORVMessage(head, 1, nullptr), AW_OK);
  EXPECT_EQ(sink.Told(), "one two");
  EXPECT_EQ(head.FlattenChained(), "one two");
}

TEST_F(Receiver, EmptyBlockIsAMessage) {
  CAWMessageBlock block(nullptr, 0, CAWMessageBlock::borrow);
  EXPECT_EQ(receiver.PostTORVMessage(block, 9, nullptr), AW_OK);
  WaitForDelivery();
  ASSERT_EQ(sink.deliveries.size(), 1U);
  EXPECT_EQ(sink.deliveries[0].what, "");
  EXPECT_EQ(sink.deliveries[0].number, 9);
}

TEST(ReceiverWithoutSink, DeliversToNobody) {
  CTORVThread receiver(nullptr, nullptr);
  CAWMessageBlock block = Text("nobody");
  EXPECT_EQ(receiver.NotifyInitOk(), AW_OK);
  EXPECT_EQ(receiver.PostTORVMessage(block, 1, nullptr), AW_OK);
  EXPECT_EQ(receiver.NotifyUnInit(), AW_OK);
  WaitForDelivery();
  EXPECT_FALSE(block.IsShared());
}

// --- events ---

TEST_F(Receiver, EventsTellTheSinkAndAnswer0) {
  CAWMessageBlock block = Text("event");
  EXPECT_EQ(CTORVEventInit(&receiver).OnEventFire(), AW_OK);
  EXPECT_EQ(CTORVEventSendData(&receiver, block, 5, &argument).OnEventFire(), AW_OK);
  EXPECT_EQ(CTORVEventUnInit(&receiver).OnEventFire(), AW_OK);
  EXPECT_EQ(sink.Told(), "init event uninit");
  EXPECT_EQ(sink.deliveries[1].number, 5);
  EXPECT_EQ(sink.deliveries[1].pointer, &argument);
}

TEST_F(Receiver, EventHoldsADuplicateUntilItIsDestroyed) {
  CAWMessageBlock block(10);
  block.Write("held", 4);
  {
    const CTORVEventSendData event(&receiver, block, 5, nullptr);
    EXPECT_TRUE(block.IsShared());
  }
  EXPECT_FALSE(block.IsShared());
}

// --- virtual slots ---

TEST(VirtualSlots, TorvSinksCallbacksComeBeforeItsDestructor) {
  EXPECT_EQ(VirtualSlot(&ITORVSink::OnInit), 0);
  EXPECT_EQ(VirtualSlot(&ITORVSink::OnMessage), 1);
  EXPECT_EQ(VirtualSlot(&ITORVSink::OnUnInit), 2);
  EXPECT_TRUE(std::has_virtual_destructor_v<ITORVSink>);
}

template <class Event>
void ExpectEventSlots() {
  EXPECT_EQ(VirtualSlot<AWResult (Event::*)()>(&Event::OnEventFire), 0);
  EXPECT_EQ(VirtualSlot<void (Event::*)()>(&Event::OnDestorySelf), 1);
  EXPECT_TRUE(std::has_virtual_destructor_v<Event>);
  EXPECT_TRUE((std::is_base_of_v<keelbase::IAWEvent, Event>));
}

TEST(VirtualSlots, TorvEventsAreThePlatformsEvents) {
  ExpectEventSlots<CTORVEventInit>();
  ExpectEventSlots<CTORVEventUnInit>();
  ExpectEventSlots<CTORVEventSendData>();
}

TEST(VirtualSlots, TorvThreadHasAVirtualDestructorAndNothingElse) {
  EXPECT_TRUE(std::has_virtual_destructor_v<CTORVThread>);
  EXPECT_EQ(VirtualSlot(&CTORVThread::Init), -1);
  EXPECT_EQ(VirtualSlot(&CTORVThread::OnInit), -1);
  EXPECT_EQ(VirtualSlot(&CTORVThread::OnMessage), -1);
  EXPECT_EQ(VirtualSlot(&CTORVThread::OnUnInit), -1);
  EXPECT_EQ(VirtualSlot(&CTORVThread::NotifyInitOk), -1);
  EXPECT_EQ(VirtualSlot(&CTORVThread::NotifyUnInit), -1);
  EXPECT_EQ(VirtualSlot(&CTORVThread::PostTORVMessage), -1);
  EXPECT_EQ(VirtualSlot(&CTORVThread::RegisterTno), -1);
  EXPECT_EQ(VirtualSlot(&CTORVThread::GetTno), -1);
  EXPECT_EQ(VirtualSlot(&CTORVThread::UnRegisterTno), -1);
}

}  // namespace
}  // namespace zarn::test
