/*
 * Singly linked lists of borrowed data. A cell is malloc'd; the data belong to the caller. Not synchronised:
 * the list's owner guards it.
 */
#include <zorvan_common.h>

#include <cstdlib>

#include "c_memory.h"

namespace {

zorvan_list_t* new_cell(void* data, zorvan_list_t* next) {
    auto* cell = static_cast<zorvan_list_t*>(std::malloc(sizeof(zorvan_list_t)));
    if (cell != nullptr) *cell = {data, next};
    return cell;
}

}  // namespace

int zorvan_list_insert(zorvan_list_t** list, void* data) {
    if (list == nullptr) return -1;
    zorvan_list_t* cell = new_cell(data, *list);
    if (cell == nullptr) return -1;
    *list = cell;
    return 0;
}

int zorvan_list_append(zorvan_list_t** list, void* data) {
    if (list == nullptr) return -1;
    zorvan_list_t** end = list;
    while (*end != nullptr) {
        end = &(*end)->next;
    }
    *end = new_cell(data, nullptr);
    return *end != nullptr ? 0 : -1;
}

void* zorvan_list_pop(zorvan_list_t** list) {
    if (list == nullptr || *list == nullptr) return nullptr;
    const std::unique_ptr<zorvan_list_t, zorvan::common::FreeMemory> cell(*list);
    *list = cell->next;
    return cell->data;
}

size_t zorvan_list_size(const zorvan_list_t* list) {
    size_t size = 0;
    for (; list != nullptr; list = list->next) {
        ++size;
    }
    return size;
}

void zorvan_list_free(zorvan_list_t* list) {
    while (list != nullptr) {
        zorvan_list_pop(&list);
    }
}

void zorvan_list_destroy_all(zorvan_list_t* list, void (*destructor)(void*)) {
    while (list != nullptr) {
        void* data = zorvan_list_pop(&list);
        if (destructor != nullptr) destructor(data);
    }
}
