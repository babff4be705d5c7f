/*
 * What a new object is stored with: content type and metadata.
 *
 * Threads: made and used by a worker. Ownership: the properties point into the record, which must
 * neither move nor end before the request that uses them.
 */
#ifndef ZORVAN_S3_UPLOAD_PROPERTIES_H
#define ZORVAN_S3_UPLOAD_PROPERTIES_H

#include "s3_request.h"

/** The properties that every new object has, without metadata. @param content_type  borrowed, may be null */
S3PutProperties zorvan_i_s3_object_properties(const char* content_type,
                                              const zorvan_i_s3_handle_t& s3_handle) noexcept;

class zorvan_i_s3_upload_properties_t {
  public:
    zorvan_i_s3_upload_properties_t() = default;
    zorvan_i_s3_upload_properties_t(const zorvan_i_s3_upload_properties_t&) = delete;
    zorvan_i_s3_upload_properties_t& operator=(const zorvan_i_s3_upload_properties_t&) = delete;

    /**
     * Fill the properties for one upload.
     * @param key          names the content type by its extension; may be null
     * @param source_file  where a bad checksum is reported
     * @return "Invalid md5 checksum", or the encoder's error
     */
    zorvan_result_t build(const zorvan_i_s3_trace_t& trace, const char* source_file,
                          zorvan_gridftp_server_operation_t op, const char* key,
                          const zorvan_gridftp_server_transfer_info_t& transfer_info,
                          const zorvan_i_s3_handle_t& s3_handle) noexcept;

    const S3PutProperties* get() const noexcept { return &properties_; }

  private:
    void add(const char* name, const char* value) noexcept;

    char mtime_[21] = "";
    char md5_[zorvan_i_s3_md5sum_encoded_size] = "";
    S3NameValue metadata_[2] = {};
    S3PutProperties properties_ = {};
};

#endif
