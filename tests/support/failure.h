#pragma once

#include <gtest/gtest.h>

#include "base/error.h"

namespace veerline::testing {

// The VeerlineError an operation throws; a test failure (and an empty io error) when it throws none.
template <typename Operation>
VeerlineError failureOf(Operation operation) {
    try { operation(); } catch (const VeerlineError& error) { return error; }
    ADD_FAILURE() << "no error";
    return VeerlineError::io("");
}

}  // namespace veerline::testing
