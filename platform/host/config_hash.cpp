#include "config_hash.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

namespace qvhost {
namespace {

constexpr int kInitialBuckets = 32;

// 64-bit FNV-1a on every architecture; a 32-bit size_t only keeps the low half for the bucket.
size_t Fnv1a(const std::string& key) {
    uint64_t hash = 1469598103934665603ULL;
    for (unsigned char c : key) {
        hash ^= c;
        hash *= 1099511628211ULL;
    }
    return static_cast<size_t>(hash);
}

char* CopyText(const std::string& text) {
    char* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (!copy) throw std::bad_alloc();
    std::memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
}

void FreeChain(ihash_item* item) {
    while (item) {
        ihash_item* next = item->next;
        std::free(item->key);
        std::free(item->value);
        std::free(item);
        item = next;
    }
}

}  // namespace

HashTable::HashTable() {
    hash_.size = kInitialBuckets;
    hash_.items = static_cast<ihash_item**>(std::calloc(kInitialBuckets, sizeof(ihash_item*)));
    if (!hash_.items) throw std::bad_alloc();
}

HashTable::~HashTable() {
    Clear();
    std::free(hash_.items);
}

ihash_item** HashTable::BucketOf(const std::string& key) const {
    return &hash_.items[Fnv1a(key) % static_cast<size_t>(hash_.size)];
}

const char* HashTable::Find(const std::string& key) const {
    for (ihash_item* item = *BucketOf(key); item; item = item->next) {
        if (key == item->key) return item->value;
    }
    return nullptr;
}

void HashTable::Set(const std::string& key, const std::string& value) {
    ihash_item** bucket = BucketOf(key);
    for (ihash_item* item = *bucket; item; item = item->next) {
        if (key != item->key) continue;
        char* copy = CopyText(value);
        std::free(item->value);
        item->value = copy;
        return;
    }
    auto* item = static_cast<ihash_item*>(std::malloc(sizeof(ihash_item)));
    if (!item) throw std::bad_alloc();
    item->key = CopyText(key);
    item->value = CopyText(value);
    item->next = *bucket;
    *bucket = item;
    if (++hash_.count > 2L * hash_.size) Grow();
}

void HashTable::Remove(const std::string& key) {
    for (ihash_item** link = BucketOf(key); *link; link = &(*link)->next) {
        if (key != (*link)->key) continue;
        ihash_item* item = *link;
        *link = item->next;
        item->next = nullptr;
        FreeChain(item);
        --hash_.count;
        return;
    }
}

void HashTable::Clear() {
    for (int i = 0; i < hash_.size; ++i) {
        FreeChain(hash_.items[i]);
        hash_.items[i] = nullptr;
    }
    hash_.count = 0;
}

void HashTable::Grow() {
    int size = hash_.size * 4;
    auto* items =
        static_cast<ihash_item**>(std::calloc(static_cast<size_t>(size), sizeof(ihash_item*)));
    if (!items) return;  // a full table still works, only slower
    for (int i = 0; i < hash_.size; ++i) {
        for (ihash_item* item = hash_.items[i]; item;) {
            ihash_item* next = item->next;
            ihash_item** bucket = &items[Fnv1a(item->key) % static_cast<size_t>(size)];
            item->next = *bucket;
            *bucket = item;
            item = next;
        }
    }
    std::free(hash_.items);
    hash_.items = items;
    hash_.size = size;
}

}  // namespace qvhost
