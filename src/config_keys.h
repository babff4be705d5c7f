/*
 * One line of the configuration file, and the check at its end, for a table of keys.
 *
 * The tables end with a record without a name. Threads: activation's alone. Ownership: a string that is
 * stored in a setting belongs to that setting.
 */
#ifndef ZORVAN_S3_CONFIG_KEYS_H
#define ZORVAN_S3_CONFIG_KEYS_H

#include "zorvan_s3.h"

/**
 * Store a value in the setting of its key. A number is stored also when it is then refused.
 * @param found  receives whether the table has the key
 * @return a generic error that names file, line, key and value, or the malloc error
 */
zorvan_result_t zorvan_l_s3_config_parse_key(const char* path, int line_number, const char* key,
                                             const char* value, const zorvan_i_s3_config_key_t* config_keys,
                                             bool* found) noexcept;

/**
 * Whether the required keys have values; only those that are strings are looked at.
 * @return a generic error that names the first key without one
 */
zorvan_result_t zorvan_l_s3_config_check_required(const char* path,
                                                  const zorvan_i_s3_config_key_t* config_keys) noexcept;

#endif
