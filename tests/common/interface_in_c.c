/* The public header from plain C: it compiles without complaint, and the records are what C code fills. */

#include <zorvan_common.h>

#include <stdlib.h>

int zorvan_test_interface_in_c(void);

static zorvan_result_t activate(void) {
    return ZORVAN_SUCCESS;
}

static const zorvan_version_t version = {1, 0};

static const zorvan_module_descriptor_t descriptor = {
    .name = "in_c", .activate = activate, .deactivate = NULL, .version = &version};

/** Uses one call of each area. @return 0, or the number of the step that went wrong */
int zorvan_test_interface_in_c(void) {
    zorvan_hashtable_t table = NULL;
    zorvan_list_t* list = NULL;
    zorvan_extension_handle_t handle = NULL;
    zorvan_debug_handle_t debug = {0};
    zorvan_error_t* error = NULL;
    char* text = NULL;
    int datum = 7;

    if (zorvan_module_activate(&descriptor) != ZORVAN_SUCCESS) return 1;
    if (zorvan_extension_registry_add(&zorvan_i_gfs_dsi_registry, "in_c", &descriptor, &datum) !=
        ZORVAN_SUCCESS) {
        return 2;
    }
    if (zorvan_extension_registry_lookup(&handle, &zorvan_i_gfs_dsi_registry, "in_c") != &datum) return 3;
    zorvan_extension_release(handle);
    if (zorvan_extension_registry_remove(&zorvan_i_gfs_dsi_registry, "in_c") != &datum) return 4;
    if (zorvan_module_deactivate(&descriptor) != ZORVAN_SUCCESS) return 5;

    error = zorvan_error_get(zorvan_error_put(zorvan_i_gfs_error_system(NULL, 0, "in %s", "C")));
    if (zorvan_error_get_type(error) != ZORVAN_ERROR_TYPE_SYSTEM) return 6;
    zorvan_error_free(error);

    if (zorvan_hashtable_init(&table, 8, zorvan_hashtable_string_hash, zorvan_hashtable_string_keyeq) != 0) {
        return 7;
    }
    if (zorvan_hashtable_insert(&table, "key", &datum) != 0) return 8;
    if (zorvan_hashtable_lookup(&table, "key") != &datum) return 9;
    zorvan_hashtable_destroy(&table);

    if (zorvan_list_append(&list, &datum) != 0 || zorvan_list_pop(&list) != &datum) return 10;
    if (zorvan_debug_init(&debug, "ZORVAN_TEST_NEVER_SET", "LEVEL") != -1 || debug.file != NULL) return 11;
    if (zorvan_eval_path("plain", &text) != ZORVAN_SUCCESS) return 12;
    free(text);
    zorvan_assert(datum == 7);
    return 0;
}
