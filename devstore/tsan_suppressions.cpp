// Read by the thread sanitizer's runtime at start; empty in every other
// build. One entry, for a report that is false: Asio counts the references of
// a type-erased executor down with a release decrement and an acquire fence,
// and gcc's sanitizer does not see fences (-Wtsan), so freeing the executor
// looks unordered to it.
#if defined(__SANITIZE_THREAD__)
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions();

/// Suppressions in the runtime's own format; a literal, never freed.
extern "C" const char* __tsan_default_suppressions() {
    return "race:boost::asio::execution::detail::shared_target_executor\n";
}
#endif
