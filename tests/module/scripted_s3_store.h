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
/// What becomes of a commit whose body was sent.
S3Status check_commit(const S3Call& call);
/// The ETag of the object that a commit makes.
std::string commit_etag(const S3Call& call);
/// See s3_retry_after_data().
bool retry_after_data();
/// Bytes per put-data callback.
int pull_size();

// Uploads in progress, scripted_s3_uploads.cpp; the store's mutex is held.

/// Answer a call about uploads; the page size is that of listings.
Reply answer_upload_call(const Bucket& bucket, const S3Call& call, size_t page_entries);
/// What a successful call changes.
void apply_upload_call(Bucket& bucket, const S3Call& call);
/// The parts that a commit's body lists, in its order; none when the body is not in the exact form.
std::optional<std::vector<std::pair<int, std::string>>> parse_commit(const std::string& body);
/// The object that an upload's listed parts make; none when one of them is not stored like that.
std::optional<Object> assemble(const Bucket& bucket, const S3Call& call);

}  // namespace module_test
