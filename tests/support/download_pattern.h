// The bytes of the download test server's files (/dl/file/<seed>/<size>): deterministic
// pseudo-random bytes from a seed, so that a file of any size is generated, never stored, and any
// range of it can be computed on its own. Shared by the server, the tests that check what arrived
// and the benchmarks.
//
// Byte p is byte p % 8 of table[p / 8 % 8192] XOR key(p / 65536): a 64 KiB table of splitmix64
// words made from the seed, and a key per 64 KiB block, so no block repeats another and a
// truncated or shifted copy never matches.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace qvtest {

class PatternFile {
public:
    static constexpr size_t kBlockBytes = 64 * 1024;

    explicit PatternFile(uint64_t seed) : seed_(seed), table_(kBlockBytes / 8) {
        uint64_t state = seed;
        for (auto& word : table_)
            word = Next(state);
    }

    void Fill(uint64_t offset, char* out, size_t length) const {
        const auto* table = reinterpret_cast<const unsigned char*>(table_.data());
        while (length > 0) {
            uint64_t block = offset / kBlockBytes;
            uint64_t state = seed_ ^ (block * 0x9E3779B97F4A7C15ull);
            uint64_t key = Next(state);
            unsigned char key_bytes[8];
            std::memcpy(key_bytes, &key, 8);
            size_t in_block = static_cast<size_t>(offset % kBlockBytes);
            size_t n = std::min(length, kBlockBytes - in_block);
            size_t i = 0;
            for (; i < n && (in_block + i) % 8 != 0; ++i)
                out[i] = static_cast<char>(table[in_block + i] ^ key_bytes[(in_block + i) % 8]);
            for (; i + 8 <= n; i += 8) {
                uint64_t word;
                std::memcpy(&word, table + in_block + i, 8);
                word ^= key;
                std::memcpy(out + i, &word, 8);
            }
            for (; i < n; ++i)
                out[i] = static_cast<char>(table[in_block + i] ^ key_bytes[(in_block + i) % 8]);
            out += n;
            offset += n;
            length -= n;
        }
    }

    std::string Bytes(uint64_t offset, size_t length) const {
        std::string bytes(length, '\0');
        Fill(offset, bytes.data(), length);
        return bytes;
    }

private:
    static uint64_t Next(uint64_t& state) {
        uint64_t z = (state += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }

    uint64_t seed_;
    std::vector<uint64_t> table_;
};

}  // namespace qvtest
