// What nearly every test includes.
#ifndef GX_TESTS_SUPPORT_TEST_H
#define GX_TESTS_SUPPORT_TEST_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/standard.h"

#endif  // GX_TESTS_SUPPORT_TEST_H
