// The back end's configuration file: refused with a text that names the file and the line, or taken with
// every number within its bounds.
#include <algorithm>
#include <utility>

#include "memory_file.h"
#include "module_result.h"
#include "zorvan_s3.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text = fuzz::Input(data, size).rest();
    const fuzz::MemoryFile file(text);
    const std::string message = fuzz::text_of(zorvan_i_s3_config_parse());
    if (message.empty()) {
        FUZZ_CHECK(zorvan_i_s3_max_retries >= 0);
        FUZZ_CHECK(zorvan_i_s3_retry_delay_ms >= 0);
        FUZZ_CHECK(zorvan_i_s3_part_size >= 0);
        FUZZ_CHECK(zorvan_i_s3_restore_days >= 0);
    } else {
        // A line is at most as long as its buffer, so long lines count more than once.
        constexpr std::string_view place = "/memory/file:";
        const std::size_t at = message.find(place);
        FUZZ_CHECK(at != std::string::npos);
        const auto line = std::strtoul(message.c_str() + at + place.size(), nullptr, 10);
        const auto ends = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
        FUZZ_CHECK(line >= 1 && line <= ends + 1 + text.size() / 255);
    }
    for (const char* value :
         {zorvan_i_s3_default_hostname, zorvan_i_s3_default_region, zorvan_i_s3_mime_type_file,
          zorvan_i_s3_restore_tier, zorvan_i_s3_rg_admin_bucket, zorvan_i_s3_rg_admin_access_key_id,
          zorvan_i_s3_rg_admin_secret_access_key}) {
        if (value == nullptr) continue;
        const std::string_view word(value);
        FUZZ_CHECK(!word.empty() && word.find_first_of(" \t\n\v\f\r#") == std::string_view::npos);
    }
    FUZZ_CHECK(zorvan_error_table_count() == 0);
    // The settings live as long as the process; every input starts from none.
    for (char** setting :
         {&zorvan_i_s3_default_hostname, &zorvan_i_s3_default_region, &zorvan_i_s3_mime_type_file,
          &zorvan_i_s3_restore_tier, &zorvan_i_s3_rg_admin_bucket, &zorvan_i_s3_rg_admin_access_key_id,
          &zorvan_i_s3_rg_admin_secret_access_key})
        std::free(std::exchange(*setting, nullptr));
    zorvan_i_s3_max_retries = zorvan_i_s3_retry_delay_ms = zorvan_i_s3_restore_days = 1;
    zorvan_i_s3_part_size = 0;
    return 0;
}
