// What the scripted S3 functions ask of the store behind them. Any thread may call.
#pragma once

#include "scripted_s3.h"

namespace module_test {

/// How this call shall end.
Reply decide(const S3Call& call);
/// Record a call that begins; @return its place.
size_t begin(const S3Call& call);
/// Record how it ended and change the store accordingly.
void end(size_t index, const S3Call& call);
/// Bytes per put-data callback.
int pull_size();

}  // namespace module_test
