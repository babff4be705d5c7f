/*
 * The chained hash table of the C interface, with the caller's hash and equality. Keys and data are borrowed;
 * the table owns its buckets and links alone. Its size is fixed, so a lookup never moves anything. Not
 * synchronised: the table's owner guards it.
 */
#include <zorvan_common.h>

#include <cstring>
#include <memory>
#include <new>

namespace {

struct Link {
    const void* key;
    void* datum;
    Link* next;
};

}  // namespace

struct zorvan_hashtable_s {
    std::unique_ptr<Link*[]> buckets;
    int bucket_count;
    zorvan_hashtable_hash_t hash;
    zorvan_hashtable_keyeq_t keyeq;
    size_t size;

    /** The place where the key's link hangs, or where a new one would. */
    Link** find(const void* key) const {
        const int bucket = hash(key, bucket_count);
        zorvan_assert(bucket >= 0 && bucket < bucket_count);
        Link** place = &buckets[static_cast<size_t>(bucket)];
        while (*place != nullptr && keyeq((*place)->key, key) == 0) {
            place = &(*place)->next;
        }
        return place;
    }
};

int zorvan_hashtable_init(zorvan_hashtable_t* table, int buckets, zorvan_hashtable_hash_t hash,
                          zorvan_hashtable_keyeq_t keyeq) {
    if (table == nullptr) return -1;
    *table = nullptr;
    if (buckets < 1 || hash == nullptr || keyeq == nullptr) return -1;
    std::unique_ptr<Link*[]> array(new (std::nothrow) Link* [static_cast<size_t>(buckets)] {});
    if (!array) return -1;
    *table = new (std::nothrow) zorvan_hashtable_s{std::move(array), buckets, hash, keyeq, 0};
    return *table != nullptr ? 0 : -1;
}

int zorvan_hashtable_insert(zorvan_hashtable_t* table, const void* key, void* datum) {
    if (table == nullptr || *table == nullptr) return -1;
    Link** place = (*table)->find(key);
    if (*place != nullptr) return -1;
    *place = new (std::nothrow) Link{key, datum, nullptr};
    if (*place == nullptr) return -1;
    ++(*table)->size;
    return 0;
}

void* zorvan_hashtable_lookup(const zorvan_hashtable_t* table, const void* key) {
    if (table == nullptr || *table == nullptr) return nullptr;
    const Link* link = *(*table)->find(key);
    return link != nullptr ? link->datum : nullptr;
}

void* zorvan_hashtable_remove(zorvan_hashtable_t* table, const void* key) {
    if (table == nullptr || *table == nullptr) return nullptr;
    Link** place = (*table)->find(key);
    const std::unique_ptr<Link> link(*place);
    if (!link) return nullptr;
    *place = link->next;
    --(*table)->size;
    return link->datum;
}

size_t zorvan_hashtable_size(const zorvan_hashtable_t* table) {
    return table != nullptr && *table != nullptr ? (*table)->size : 0;
}

void zorvan_hashtable_destroy_all(zorvan_hashtable_t* table, zorvan_hashtable_destructor_t destructor) {
    if (table == nullptr || *table == nullptr) return;
    const std::unique_ptr<zorvan_hashtable_s> dying(*table);
    *table = nullptr;
    for (int bucket = 0; bucket < dying->bucket_count; ++bucket) {
        Link* next = dying->buckets[static_cast<size_t>(bucket)];
        while (next != nullptr) {
            const std::unique_ptr<Link> link(next);
            next = link->next;
            if (destructor != nullptr) destructor(link->datum);
        }
    }
}

void zorvan_hashtable_destroy(zorvan_hashtable_t* table) {
    zorvan_hashtable_destroy_all(table, nullptr);
}

int zorvan_hashtable_string_hash(const void* string, int limit) {
    constexpr uint32_t kOffsetBasis = 2166136261U;
    constexpr uint32_t kPrime = 16777619U;
    if (limit <= 0) return 0;
    uint32_t hash = kOffsetBasis;
    if (string != nullptr) {
        for (const auto* byte = static_cast<const unsigned char*>(string); *byte != 0; ++byte) {
            hash = (hash ^ *byte) * kPrime;
        }
    }
    return static_cast<int>(hash % static_cast<uint32_t>(limit));
}

int zorvan_hashtable_string_keyeq(const void* left, const void* right) {
    if (left == right) return 1;
    if (left == nullptr || right == nullptr) return 0;
    return std::strcmp(static_cast<const char*>(left), static_cast<const char*>(right)) == 0 ? 1 : 0;
}
