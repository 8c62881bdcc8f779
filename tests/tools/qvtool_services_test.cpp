// qvtool status, bt, http --parallel and time.
#include <gtest/gtest.h>

#include "child_process.h"

namespace {

using qvtest::Contains;
using qvtest::Qvtool;

}  // namespace
