// A storage back end that keeps everything in memory, for tests of the server. What it holds is process-wide,
// as a store's contents are; tests look into it and steer it through the table below, which the module
// exports as zorvan_memory_backend. It may be loaded with the option string "fresh" or none.
//
// Names make it fail: a path with the component "error-plain", "error-system" (EFBIG), "error-generic" or
// "error-NNN" (FTP response with that code) is refused so by every operation. A stat of a path with a
// component that begins with "hang" never ends. Names of users: "refused" gets an error, "nosession" success
// without a session. Directories below the root are its buckets; "/bucket" exists.
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" {

struct zorvan_memory_backend_s {
    /// Forget everything but "/bucket".
    void (*clear)();
    void (*put)(const char* path, const void* data, std::size_t size);
    /// Copy at most `room` bytes out. @return the object's size, or -1
    std::int64_t (*get)(const char* path, void* data, std::size_t room);
    void (*make_directory)(const char* path);
    /// Session handles made and not destroyed; destroyed in all.
    std::size_t (*open_sessions)();
    std::size_t (*destroyed_sessions)();
    /// How many listing entries each partial call hands over (default 100).
    void (*set_batch)(int entries);
    /// Keep checksums from ending (1), or let them (0).
    void (*hold_checksums)(int hold);
    /// How many are being kept.
    std::size_t (*held_checksums)();
    /// Report every received range as stored (1) or not (0, the default), and say that such ranges are
    /// durable or not. While no server runs.
    void (*report_ranges)(int report, int durable);
    /// Bytes so reported, in all.
    std::uint64_t (*reported_bytes)();
};
}
