// A member of a zip archive seen by TagLib as a read-only stream.
//
// The zip reader goes forward only: going back means starting the member over and decompressing
// it again up to the place. Tag readers jump between the two ends of a file (ID3v2 at the head,
// ID3v1 and APE at the tail), so a large member keeps its first megabyte and its last 100 KB in
// memory, read once when the stream is made, and those jumps cost no restart. A member smaller
// than the two caches together is read through the zip reader alone.
//
// The object holds both caches inline and is over a megabyte large: make it on the heap.
#pragma once

#include <taglib/tiostream.h>

#include <memory>
#include <string>

#include "common_utilities/common_utilities.h"
#include "common_utilities/old_zip/qv_zip_manager.h"

class QV_EXPORT TagIOStream : public TagLib::IOStream {
public:
    static constexpr int kHeadSize = 1048576;
    static constexpr int kTailSize = 102400;

    // Opens the member; if that fails the stream exists and isOpen() answers false.
    TagIOStream(const std::string& zip_path, const std::string& entry_name);
    ~TagIOStream() override;
    TagIOStream(const TagIOStream&) = delete;
    TagIOStream& operator=(const TagIOStream&) = delete;

    TagLib::FileName name() const override;
    TagLib::ByteVector readBlock(unsigned long length) override;
    void writeBlock(const TagLib::ByteVector& data) override;
    void insert(const TagLib::ByteVector& data, unsigned long start, unsigned long replace) override;
    void removeBlock(unsigned long start, unsigned long length) override;
    bool readOnly() const override;
    bool isOpen() const override;
    void seek(long offset, Position position) override;
    void clear() override;
    long tell() const override;
    long length() override;
    void truncate(long length) override;

    // Moves within the cached regions; true when the position now lies in one of them.
    bool seek_cache(long offset, Position position);
    // Moves the zip reader, restarting the member when the target lies behind it.
    void seek_file(long offset, Position position);

private:
    void FillCaches();
    long Size() const;

    quorvel::QVZipManager zip_;
    std::string entry_name_;
    char head_[kHeadSize];
    int head_length_ = 0;
    char tail_[kTailSize];
    int tail_length_ = 0;
    int cache_position_ = -1;  // -1: reads go to the zip reader
    long size_ = 0;            // the member's size, or the zip reader's code when not open
};
