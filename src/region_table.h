/*
 * The Amazon S3 endpoints that are known by name.
 *
 * Constant data and lookups in it; any thread.
 */
#ifndef ZORVAN_S3_REGION_TABLE_H
#define ZORVAN_S3_REGION_TABLE_H

#include <string_view>

/** A region: its signing name and its endpoint hosts. */
struct zorvan_l_aws_region_t {
    const char* display_name;
    const char* region;
    const char* hosts[6];      /**< null-terminated: plain, FIPS, global, dual-stack, FIPS dual-stack */
    const char* location_name; /**< what a bucket's reported region is compared with */
};

/** The row that lists a host, compared exactly; the last one if several do; null for other hosts. */
const zorvan_l_aws_region_t* zorvan_l_lookup_aws_host(std::string_view host) noexcept;
/** The first row with this location name, or null. */
const zorvan_l_aws_region_t* zorvan_l_lookup_aws_region(std::string_view region) noexcept;

/** Whether a host is one of the FIPS or the dual-stack endpoints, by its form. */
bool zorvan_l_is_fips_host(std::string_view host) noexcept;
bool zorvan_l_is_dual_stack_host(std::string_view host) noexcept;

#endif
