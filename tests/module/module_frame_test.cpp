#include <gtest/gtest.h>

#include "support/loaded_module.h"

TEST(ModuleFrame, LoadsWithTheRealLoader)
{
  EXPECT_EQ(kelvara_test::LoadedModuleForTests().GetModuleId(), "net.telvo.kelvara");
}
