/* The interface seen by a C compiler: a handler of every kind, filled in and used by name. */
#include <libs3.h>
#include <stddef.h>

_Static_assert(sizeof(S3ResponseProperties) == 112, "properties");
_Static_assert(sizeof(S3PutProperties) == 80, "put properties");
_Static_assert(sizeof(S3BucketContext) == 64, "bucket context");
_Static_assert(offsetof(RGUserInfo, keyCount) == 1852, "key count");
_Static_assert(offsetof(RGUserInfo, keys) == 1856, "keys");
_Static_assert(sizeof(RGUserKey) == 352, "key");

int s3_interface_in_c(void);

static S3ResponseCompleteCallback remember_status;
static void remember_status(S3Status status, const S3ErrorDetails* details, void* data) {
    (void)details;
    *(S3Status*)data = status;
}

/* Returns the status of a request that is refused before anything is sent. */
int s3_interface_in_c(void) {
    const S3AbortMultipartUploadHandler abort_handler = {{NULL, remember_status}, NULL};
    const S3BucketContext context = {"h", "bucket", S3ProtocolHTTP, S3UriStylePath, "a", "s", NULL, NULL, 0};
    S3Status status = S3StatusOK;
    S3_abort_multipart_upload_ex(&context, NULL, "id", 0, &abort_handler, NULL, &status);
    return (int)status;
}
