// ZARNLoggerImp_slots_test.cpp - the virtual slots of the logger.
#include <gtest/gtest.h>

#include <type_traits>

#include "VirtualSlot.h"
#include "zarn/utils/ZARNLoggerImp.h"

namespace zarn::test {
namespace {

template <class Logger>
void ExpectSlots() {
  EXPECT_EQ(VirtualSlot(&Logger::Init), 0);
  EXPECT_EQ(VirtualSlot(&Logger::enableDebug), 1);
  EXPECT_EQ(VirtualSlot(&Logger::disableDebug), 2);
  EXPECT_EQ(VirtualSlot(&Logger::enableStdout), 3);
  EXPECT_EQ(VirtualSlot(&Logger::disableStdout), 4);
  EXPECT_EQ(VirtualSlot(&Logger::setWidthFunction), 5);
  EXPECT_EQ(VirtualSlot(&Logger::setWidthFilename), 6);
  EXPECT_EQ(VirtualSlot(&Logger::Print), 7);
  EXPECT_EQ(VirtualSlot(&Logger::DebugPrint), 8);
}

TEST(VirtualSlots, LoggersOperationsComeInTheirOrder) {
  ExpectSlots<utils::ZARNLogger>();
  ExpectSlots<utils::ZARNLoggerImp>();
  EXPECT_EQ(VirtualSlot(&utils::ZARNLoggerImp::printV), -1);
}

TEST(VirtualSlots, LoggerInterfaceHasNoData) {
  EXPECT_TRUE(std::is_abstract_v<utils::ZARNLogger>);
  EXPECT_TRUE(std::has_virtual_destructor_v<utils::ZARNLogger>);
  EXPECT_EQ(sizeof(utils::ZARNLogger), sizeof(void*));
}

TEST(VirtualSlots, LoggerHoldsTwoStreamsAndSixBytes) {
  EXPECT_EQ(sizeof(utils::ZARNLoggerImp), 5 * sizeof(void*));
}

}  // namespace
}  // namespace zarn::test
