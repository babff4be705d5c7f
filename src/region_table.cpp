/*
 * The table of Amazon S3 regions and their endpoint hosts, as Amazon publishes them.
 *
 * Constant data; any thread.
 */
#include "region_table.h"

#include "zorvan_s3.h"

#include <array>

#define AWS_PLAIN(region) "s3." region ".amazonaws.com"
#define AWS_FIPS(region) "s3-fips." region ".amazonaws.com"
#define AWS_DUAL(region) "s3.dualstack." region ".amazonaws.com"
#define AWS_FIPS_DUAL(region) "s3-fips.dualstack." region ".amazonaws.com"

/* Three kinds of rows: regions with FIPS endpoints, regions without, and China with a domain of its own. */
#define AWS_FIPS_ROW(code, display)                                                                     \
    {.display_name = display,                                                                           \
     .region = code,                                                                                    \
     .hosts = {AWS_PLAIN(code), AWS_FIPS(code), AWS_DUAL(code), AWS_FIPS_DUAL(code), nullptr, nullptr}, \
     .location_name = code}
#define AWS_ROW(code, display)                                                       \
    {.display_name = display,                                                        \
     .region = code,                                                                 \
     .hosts = {AWS_PLAIN(code), AWS_DUAL(code), nullptr, nullptr, nullptr, nullptr}, \
     .location_name = code}
#define AWS_CHINA_ROW(code, display)                                                             \
    {.display_name = display,                                                                    \
     .region = code,                                                                             \
     .hosts = {AWS_PLAIN(code) ".cn", AWS_DUAL(code) ".cn", nullptr, nullptr, nullptr, nullptr}, \
     .location_name = code}

namespace {
constexpr std::array<zorvan_l_aws_region_t, 32> zorvan_l_aws_region_table{{
    AWS_FIPS_ROW("us-east-2", "US East (Ohio)"),
    {.display_name = "US East (N. Virginia)",
     .region = "us-east-1",
     .hosts = {AWS_PLAIN("us-east-1"), AWS_FIPS("us-east-1"), "s3.amazonaws.com", AWS_DUAL("us-east-1"),
               AWS_FIPS_DUAL("us-east-1"), nullptr},
     .location_name = "us-east-1"},
    AWS_FIPS_ROW("us-west-1", "US West (N. California)"),
    AWS_FIPS_ROW("us-west-2", "US West (Oregon)"),
    AWS_ROW("af-south-1", "Africa (Cape Town)"),
    AWS_ROW("ap-east-1", "Asia Pacific (Hong Kong)***"),
    AWS_ROW("ap-south-2", "Asia Pacific (Hyderabad)"),
    AWS_ROW("ap-southeast-3", "Asia Pacific (Jakarta)"),
    AWS_ROW("ap-southeast-4", "Asia Pacific (Melbourne)"),
    AWS_ROW("ap-south-1", "Asia Pacific (Mumbai)"),
    AWS_ROW("ap-northeast-3", "Asia Pacific (Osaka)"),
    AWS_ROW("ap-northeast-2", "Asia Pacific (Seoul)"),
    AWS_ROW("ap-southeast-1", "Asia Pacific (Singapore)"),
    AWS_ROW("ap-southeast-2", "Asia Pacific (Sydney)"),
    AWS_ROW("ap-northeast-1", "Asia Pacific (Tokyo)"),
    AWS_FIPS_ROW("ca-central-1", "Canada (Central)"),
    AWS_CHINA_ROW("cn-north-1", "China (Beijing)"),
    AWS_CHINA_ROW("cn-northwest-1", "China (Ningxia)"),
    AWS_ROW("eu-central-1", "Europe (Frankfurt)"),
    AWS_ROW("eu-west-1", "Europe (Ireland)"),
    AWS_ROW("eu-west-2", "Europe (London)"),
    AWS_ROW("eu-south-1", "Europe (Milan)"),
    AWS_ROW("eu-west-3", "Europe (Paris)"),
    AWS_ROW("eu-north-1", "Europe (Stockholm)"),
    AWS_ROW("eu-south-2", "Europe (Spain)"),
    AWS_ROW("eu-central-2", "Europe (Zurich)"),
    AWS_ROW("sa-east-1", "South America (São Paulo)"),
    AWS_ROW("me-south-1", "Middle East (Bahrain)"),
    AWS_ROW("me-central-1", "Middle East (UAE)"),
    AWS_ROW("il-central-1", "Israel (Tel Aviv)"),
    AWS_FIPS_ROW("us-gov-east-1", "AWS GovCloud (US-East)"),
    AWS_FIPS_ROW("us-gov-west-1", "AWS GovCloud (US-West)"),
}};
}  // namespace

const zorvan_l_aws_region_t* zorvan_l_lookup_aws_host(std::string_view host) noexcept {
    const zorvan_l_aws_region_t* found = nullptr;
    for (const auto& row : zorvan_l_aws_region_table) {
        for (const char* const* listed = row.hosts; *listed; ++listed) {
            if (host == *listed) found = &row;
        }
    }
    return found;
}

const zorvan_l_aws_region_t* zorvan_l_lookup_aws_region(std::string_view region) noexcept {
    for (const auto& row : zorvan_l_aws_region_table) {
        if (region == row.location_name) return &row;
    }
    return nullptr;
}

bool zorvan_l_is_fips_host(std::string_view host) noexcept {
    return host.starts_with("s3-fips.");
}

bool zorvan_l_is_dual_stack_host(std::string_view host) noexcept {
    return host.find(".dualstack.") != std::string_view::npos;
}

const char* zorvan_i_host_to_region(const char* host_name) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    const auto* const row = host_name ? zorvan_l_lookup_aws_host(host_name) : nullptr;
    return row ? row->region : nullptr;
}
