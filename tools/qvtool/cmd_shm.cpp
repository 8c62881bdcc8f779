// qvtool shm: shared memory segments that outlive the command, for other processes to attach.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <iostream>
#include <string>

#include "cli.h"
#include "common_utilities/sharedmemorysegment.h"

namespace qvtool {
namespace {

using quorvel::utilities::SharedMemorySegmentImpl;

// The segment's destructor removes its name for everyone, so the commands never destroy theirs:
// the area stays for the next command and for other processes, until `shm remove`.
SharedMemorySegmentImpl& KeptSegment() {
    static auto* segment = new SharedMemorySegmentImpl;
    return *segment;
}

void CheckName(const std::string& name) {
    if (name.size() < 2 || name[0] != '/' || name.find('/', 1) != std::string::npos) {
        throw Failure(kUsage, "a segment name is \"/\" and a name without slashes");
    }
}

// The user size in the header of an existing segment.
uint32_t HeaderSize(const std::string& name) {
    int fd = ::shm_open(name.c_str(), O_RDONLY, 0);
    if (fd < 0) throw Failure(kNotFound, "no segment " + name);
    uint32_t size = 0;
    ssize_t got = ::pread(fd, &size, sizeof(size), SharedMemorySegmentImpl::kSizeOffset);
    ::close(fd);
    if (got != static_cast<ssize_t>(sizeof(size))) throw Failure(kFailed, name + " has no header");
    return size;
}

// Attaches at the size the segment has now.
SharedMemorySegmentImpl& Attach(const std::string& name) {
    CheckName(name);
    uint32_t size = HeaderSize(name);
    SharedMemorySegmentImpl& segment = KeptSegment();
    if (segment.Init(name, size) != QV_OK) throw Failure(kFailed, "can't attach to " + name);
    return segment;
}

size_t ParseSize(const std::string& text, const std::string& what) {
    long long value = ParseInteger(text, what);
    if (value < 0 || value > INT32_MAX) throw Failure(kUsage, what + " is out of range");
    return static_cast<size_t>(value);
}

int RunCreate(Args& args) {
    bool random = args.Flag("--random");
    std::string name = random ? std::string() : args.Next("NAME");
    size_t size = ParseSize(args.Next("SIZE"), "SIZE");
    args.Done();
    SharedMemorySegmentImpl& segment = KeptSegment();
    if (!random) CheckName(name);
    int result = random ? segment.Init(&name, size) : segment.Init(name, size);
    if (result != QV_OK) throw Failure(kFailed, "can't create a segment");
    std::cout << "created " << name << " (" << size << " bytes)" << std::endl;
    return kOk;
}

// The offset and the room from there, checked against the segment's size.
size_t Offset(Args& args, const SharedMemorySegmentImpl& segment) {
    std::optional<std::string> text = args.Option("--offset");
    size_t offset = text ? ParseSize(*text, "--offset") : 0;
    if (offset > segment.GetSize()) throw Failure(kUsage, "--offset lies past the segment's end");
    return offset;
}

int RunWrite(Args& args) {
    std::string name = args.Next("NAME");
    std::string text = args.Next("TEXT");
    SharedMemorySegmentImpl& segment = Attach(name);
    size_t offset = Offset(args, segment);
    args.Done();
    // With its terminator when there is room, so that a read stops where the text ends.
    size_t length = std::min(text.size() + 1, segment.GetSize() - offset);
    if (length < text.size()) throw Failure(kUsage, "the text does not fit into " + name);
    segment.LockState();
    std::memcpy(segment.GetData() + offset, text.c_str(), length);
    segment.UnlockState();
    std::cout << "wrote " << text.size() << " bytes at " << offset << std::endl;
    return kOk;
}

int RunRead(Args& args) {
    std::string name = args.Next("NAME");
    SharedMemorySegmentImpl& segment = Attach(name);
    size_t offset = Offset(args, segment);
    args.Done();
    segment.LockState();
    const char* start = segment.GetData() + offset;
    std::string text(start, strnlen(start, segment.GetSize() - offset));
    segment.UnlockState();
    std::cout << "size " << segment.GetSize() << "\n" << text << std::endl;
    return kOk;
}

int RunGrow(Args& args) {
    std::string name = args.Next("NAME");
    size_t size = ParseSize(args.Next("SIZE"), "SIZE");
    args.Done();
    SharedMemorySegmentImpl& segment = Attach(name);
    size_t old_size = segment.GetSize();
    segment.Remap(size);
    if (segment.GetSize() != size) throw Failure(kFailed, "can't resize " + name);
    std::cout << name << ": " << old_size << " -> " << size << " bytes" << std::endl;
    return kOk;
}

int RunRemove(Args& args) {
    std::string name = args.Next("NAME");
    args.Done();
    CheckName(name);
    if (::shm_unlink(name.c_str()) != 0) throw Failure(kNotFound, "no segment " + name);
    std::cout << "removed " << name << std::endl;
    return kOk;
}

const bool create_registered = Register(
    {"shm create", "create a shared memory segment",
     "usage: qvtool shm create NAME SIZE | qvtool shm create --random SIZE\n"
     "Creates the segment NAME (\"/\" and a name) with SIZE bytes for its user, or attaches to\n"
     "it and sets its size, or makes up a name (--random, printed). The segment stays after\n"
     "the command, for other processes, until `qvtool shm remove`.\n",
     RunCreate});

const bool write_registered =
    Register({"shm write", "write a text into a shared memory segment, under its lock",
              "usage: qvtool shm write NAME TEXT [--offset N]\n"
              "Writes TEXT (and a terminating zero byte, if there is room) at offset N.\n",
              RunWrite});

const bool read_registered =
    Register({"shm read", "print a segment's size and the text in it, under its lock",
              "usage: qvtool shm read NAME [--offset N]\n"
              "Prints \"size N\" and the text at offset N, up to a zero byte. Exit code 3 when\n"
              "there is no such segment.\n",
              RunRead});

const bool grow_registered =
    Register({"shm grow", "resize a shared memory segment; its readers see that they must remap",
              "usage: qvtool shm grow NAME SIZE\n"
              "Maps the segment again at SIZE bytes and writes the size to its header, so that\n"
              "other processes attached to it see that they need to remap.\n",
              RunGrow});

const bool remove_registered = Register(
    {"shm remove", "remove a shared memory segment's name",
     "usage: qvtool shm remove NAME\n"
     "Removes the name; processes still attached keep their area.\n", RunRemove});

}  // namespace
}  // namespace qvtool
