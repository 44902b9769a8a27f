#pragma once

// For tests alone.

#include "base/values/Status.h"

#include <gtest/gtest.h>

#include <utility>

namespace Replication {

/// The value of an operation that must work; a default one, and the test has failed, when it
/// didn't.
template <class Value> Value value(Morva::Result<Value> result) {
    EXPECT_TRUE(result.ok()) << result.status().text().toStdString();
    return result.ok() ? *std::move(result) : Value();
}

} // namespace Replication
