// An `ihash` table owned by C++: the chains are plain C nodes, so that any code that walks an
// `ihash` (bucket count in the first word, buckets in the fifth) sees exactly what is stored.
#pragma once

#include <string>

#include "moorglass.h"

namespace qvhost {

class HashTable {
public:
    HashTable();
    ~HashTable();
    HashTable(const HashTable&) = delete;
    HashTable& operator=(const HashTable&) = delete;

    ihash* raw() { return &hash_; }
    // The stored value, valid until the key is set, removed or the table cleared; or NULL.
    const char* Find(const std::string& key) const;
    void Set(const std::string& key, const std::string& value);
    void Remove(const std::string& key);
    void Clear();

private:
    ihash_item** BucketOf(const std::string& key) const;
    void Grow();

    ihash hash_{};
};

}  // namespace qvhost
