// A filter with its programs, on a GL context.
#pragma once

#include "support/gl_fixture.h"

namespace noxel {

template <typename Filter>
class FilterTest : public GlTest {
 protected:
  void SetUp() override {
    GlTest::SetUp();
    if (egl == nullptr) return;
    ASSERT_TRUE(filter.setupPrograms(nullptr));
  }

  void TearDown() override {
    filter.Release();
    GlTest::TearDown();
  }

  Filter filter;
};

}  // namespace noxel
