// Restores from archive classes. All state follows from two times on the
// store's clock, so a test that sets the clock moves a restore along.
#include <algorithm>

#include "operations.h"
#include "receive.h"
#include "text.h"
#include "xml.h"

namespace zorvan::devstore {
namespace {

constexpr std::int64_t day_milliseconds = 24LL * 3600 * 1000;

// Intelligent tiering moves an object back for good; from an archive class only a copy comes for a time.
bool moved_back(const store& data, const object_record& object) {
    return !object.archive_status.empty() && object.restore && data.clock.now() >= object.restore->ready_at;
}

bool archived(const store& data, const object_record& object) {
    const auto& name = object.attributes.storage_class;
    if (!object.archive_status.empty()) return !moved_back(data, object);
    return name == "GLACIER" || name == "DEEP_ARCHIVE";
}

// A restored copy or a running restore counts until it expires.
bool restore_known(const store& data, const object_record& object) {
    return object.restore && data.clock.now() < object.restore->expires_at;
}

}  // namespace

void check_readable(const store& data, const object_record& object) {
    // Without restores an archive class is a name only, as on the gateway.
    if (!data.config.restore_seconds || !archived(data, object)) return;
    if (restore_known(data, object) && data.clock.now() >= object.restore->ready_at) return;
    throw s3_failure("InvalidObjectState", {{"StorageClass", object.attributes.storage_class}});
}

std::string_view archive_tier(const store& data, const object_record& object) {
    return moved_back(data, object) ? std::string_view() : object.archive_status;
}

std::string restore_header(const store& data, const object_record& object) {
    if (!data.config.restore_seconds || !restore_known(data, object) || moved_back(data, object)) return {};
    if (data.clock.now() < object.restore->ready_at) return R"(ongoing-request="true")";
    return R"(ongoing-request="false", expiry-date=")" + http_date(object.restore->expires_at) + '"';
}

reply restore_object(exchange& x) {
    x.data.index.read(x.bucket, x.uid(), [](const bucket&) {});
    if (!x.data.config.restore_seconds) throw s3_failure("NotImplemented");
    const auto wanted = parse_restore(co_await receive_text(x));
    const auto delay = static_cast<std::int64_t>(*x.data.config.restore_seconds) * 1000;
    http_response out;
    object_ptr old;
    x.data.index.write(x.bucket, x.uid(), [&](bucket& b) {
        const auto object = b.find(x.key);
        if (!object) throw s3_failure("NoSuchKey");
        if (!archived(x.data, *object))
            throw s3_failure("InvalidObjectState",
                             {{"StorageClass", std::string(shown_class(object->attributes))}});
        // Days are for copies out of an archive class; intelligent tiering moves the object itself.
        if (object->archive_status.empty() != wanted.days.has_value()) throw s3_failure("MalformedXML");
        const auto now = x.data.clock.now();
        const bool known = restore_known(x.data, *object);
        if (known && now < object->restore->ready_at) throw s3_failure("RestoreAlreadyInProgress");
        auto changed = std::make_shared<object_record>(*object);
        const auto ready = known ? object->restore->ready_at : now + delay;
        // The period counts from the next midnight after the copy is there.
        const auto start = std::max(ready, now);
        const auto days = static_cast<std::int64_t>(wanted.days.value_or(36500));
        changed->restore = restore_state{ready, (start / day_milliseconds + 1 + days) * day_milliseconds};
        out.status = known ? 200 : 202;
        old = b.store(x.key, changed);
    });
    co_return out;
}

}  // namespace zorvan::devstore
