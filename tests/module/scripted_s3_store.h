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
/// See s3_retry_after_data().
bool retry_after_data();
/// Bytes per put-data callback.
int pull_size();

}  // namespace module_test
