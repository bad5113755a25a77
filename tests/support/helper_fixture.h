// A fixture for tests that build characters: the module loaded and one helper made.
#pragma once

#include <gtest/gtest.h>

#include "support/loaded_module.h"
#include "telvo/kelvarahelper.h"

namespace kelvara_test
{

class HelperTest : public ::testing::Test
{
protected:
  void SetUp() override
  {
    LoadedModuleForTests();
    telvo::Result<telvo::KelvaraHelperRef> helper =
      telvo::CreateObject<telvo::KelvaraHelperRef>("net.telvo.animation.class.kelvarahelper");
    ASSERT_TRUE(helper.IsOk());
    _helper = helper.GetValue();
  }

  telvo::KelvaraHelperRef _helper;
};

} // namespace kelvara_test
