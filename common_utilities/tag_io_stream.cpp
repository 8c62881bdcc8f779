#include "common_utilities/tag_io_stream.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <vector>

using TagLib::ByteVector;

TagIOStream::TagIOStream(const std::string& zip_path, const std::string& entry_name)
    : entry_name_(entry_name) {
    const bool opened = zip_.Open(zip_path, entry_name) == quorvel::QVZM_OK;
    // Asking the archive costs a seek and a read of the member's directory record, and tag
    // readers ask for every block they read: a member's size is read once.
    size_ = zip_.GetCurrentFileSize();
    if (opened && size_ >= static_cast<long>(kHeadSize) + kTailSize + 1) FillCaches();
}

TagIOStream::~TagIOStream() = default;

void TagIOStream::FillCaches() {
    int read = zip_.Read(head_, kHeadSize);
    head_length_ = std::max(read, 0);
    zip_.Skip(static_cast<size_t>(Size() - kTailSize - head_length_));
    read = zip_.Read(tail_, kTailSize);
    tail_length_ = std::max(read, 0);
    zip_.ChangeFile(entry_name_);
}

long TagIOStream::Size() const {
    return size_;
}

TagLib::FileName TagIOStream::name() const {
    return entry_name_.c_str();
}

ByteVector TagIOStream::readBlock(unsigned long length) {
    if (cache_position_ >= 0) {
        // In 64 bits: a damaged tag's length near 2 GiB would wrap a 32-bit long round to a
        // negative end that looks as if it lay inside a cache.
        const int64_t end = cache_position_ + static_cast<int64_t>(length);
        if (cache_position_ < head_length_ && end < head_length_) {
            ByteVector bytes(head_ + cache_position_, static_cast<unsigned int>(length));
            cache_position_ = static_cast<int>(end);
            return bytes;
        }
        if (cache_position_ >= head_length_ && cache_position_ >= Size() - tail_length_ &&
            end <= static_cast<int64_t>(Size())) {
            long index = tail_length_ + cache_position_ - Size();
            ByteVector bytes(tail_ + index, static_cast<unsigned int>(length));
            cache_position_ = static_cast<int>(end);
            return bytes;
        }
        seek_file(cache_position_, Beginning);
        cache_position_ = -1;
    }
    // A damaged tag may ask for far more than the member holds: never allocate past its end.
    const int64_t left = std::max<int64_t>(Size() - zip_.Tell(), 0);
    size_t wanted = static_cast<size_t>(std::min(static_cast<int64_t>(length), left));
    if (wanted == 0) return ByteVector();
    std::vector<char> buffer(wanted);
    int read = zip_.Read(buffer.data(), wanted);
    if (read < 1) return ByteVector();
    return ByteVector(buffer.data(), static_cast<unsigned int>(read));
}

void TagIOStream::writeBlock(const ByteVector&) {}
void TagIOStream::insert(const ByteVector&, unsigned long, unsigned long) {}
void TagIOStream::removeBlock(unsigned long, unsigned long) {}
void TagIOStream::truncate(long) {}

bool TagIOStream::readOnly() const {
    return true;
}

bool TagIOStream::isOpen() const {
    return zip_.IsCurrentOpen();
}

void TagIOStream::seek(long offset, Position position) {
    // While reads come from the caches the zip reader stands elsewhere: a relative move that
    // leaves them is made from the position the caller sees, not from the reader's.
    long logical = tell();
    if (seek_cache(offset, position)) return;
    if (position == Current) {
        seek_file(logical + offset, Beginning);
    } else {
        seek_file(offset, position);
    }
}

bool TagIOStream::seek_cache(long offset, Position position) {
    if (head_length_ == 0 || tail_length_ == 0) return false;
    long size = Size();
    long tail_start = size - tail_length_;
    long target = cache_position_;
    switch (position) {
        case Beginning:
            target = offset < head_length_ ? offset : (offset < tail_start ? -1 : offset);
            break;
        case Current:
            if (cache_position_ >= 0) {
                target = cache_position_ + offset;
                if (target >= head_length_ && target < tail_start) target = -1;
            }
            break;
        case End:
            target = offset >= -static_cast<long>(tail_length_) ? size + offset : -1;
            break;
    }
    cache_position_ = static_cast<int>(target);
    return cache_position_ >= 0;
}

void TagIOStream::seek_file(long offset, Position position) {
    long target = offset;
    if (position == Current) target = zip_.Tell() + offset;
    if (position == End) target = Size() + offset;
    if (target < zip_.Tell()) {
        zip_.ChangeFile(entry_name_);
        zip_.Skip(static_cast<size_t>(std::max(target, 0L)));
    } else {
        zip_.Skip(static_cast<size_t>(target - zip_.Tell()));
    }
}

void TagIOStream::clear() {
    std::fputs("ATTENTION: -------------- TagIOStream - clear - CALLED\n", stderr);
}

long TagIOStream::tell() const {
    return cache_position_ >= 0 ? cache_position_ : zip_.Tell();
}

long TagIOStream::length() {
    return Size();
}
