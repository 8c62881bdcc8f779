// Shared state and shared memory segments between real processes: attaching, the lock, the
// size header and remapping, the first destructor's unlinking, and made-up names.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "child_process.h"
#include "common_utilities/shared_state.h"
#include "common_utilities/sharedmemorysegment.h"
#include "log_capture.h"

namespace {

using quorvel::utilities::SharedMemorySegmentImpl;
using quorvel::utilities::SharedStateImpl;

bool NameExists(const std::string& name) {
    int fd = ::shm_open(name.c_str(), O_RDONLY, 0);
    if (fd >= 0) ::close(fd);
    return fd >= 0;
}

TEST(SharedState, ProcessesShareDataAndLockThroughOneArea) {
    const std::string name = "/qv_state";
    const size_t size = 3 * 4096;  // past a page, so that a shrunken object would fault
    SharedStateImpl state;
    EXPECT_EQ(0, state.LockState());  // not mapped yet
    ASSERT_EQ(QV_OK, state.Init(name, size));
    ASSERT_EQ(0, state.LockState());
    std::strcpy(state.GetData(), "from parent");

    // Attaching while the lock is held: the semaphore is not set up again, so it stays held.
    auto child = qvtest::RunInChild([&name] {
        SharedStateImpl attached;
        if (attached.Init(name, 16) != QV_OK) return 1;  // asks for less than there is
        if (sem_trywait(static_cast<sem_t*>(attached.GetBase())) != -1 || errno != EAGAIN) {
            return 2;
        }
        if (std::string(attached.GetData()) != "from parent") return 3;
        std::strcpy(attached.GetData(), "from child");
        return 0;  // its destructor removes the name
    });
    ASSERT_TRUE(child.Succeeded()) << child.Describe();
    EXPECT_EQ("from child", std::string(state.GetData()));
    ASSERT_EQ(0, state.UnlockState());
    // The smaller attach did not cut the area: its last byte is still there to touch.
    state.GetData()[size - 1] = 'z';
    EXPECT_EQ('z', state.GetData()[size - 1]);

    // The child's destructor took the name for everyone; a later process gets a new area, while
    // this one still works on the old.
    EXPECT_FALSE(NameExists(name));
    SharedStateImpl later;
    ASSERT_EQ(QV_OK, later.Init(name, size));
    EXPECT_EQ('\0', later.GetData()[0]);
    EXPECT_EQ(0, later.LockState());  // a fresh semaphore
    EXPECT_EQ(0, later.UnlockState());
    EXPECT_EQ("from child", std::string(state.GetData()));
}

TEST(SharedMemorySegment, ReaderRemapsAfterTheWriterResized) {
    const std::string name = "/qv_segment";
    SharedMemorySegmentImpl writer;
    qvtest::LogCapture log;
    ASSERT_EQ(QV_OK, writer.Init(name, 100));
    EXPECT_TRUE(log.Has(4, qvtest::PidLine("/qv_segment 100")));
    EXPECT_FALSE(writer.NeedRemap());
    std::strcpy(writer.GetData(), "head");

    qvtest::Rendezvous attached, grown, checked, shrunk;
    auto reader = qvtest::ChildProcess::Start([&] {
        SharedMemorySegmentImpl segment;
        if (segment.Init(name, 100) != QV_OK) return 1;
        // Attaching sets the semaphore up again, and must leave the data after it alone.
        if (std::string(segment.GetData()) != "head") return 9;
        attached.Signal();
        if (!grown.Wait()) return 2;
        if (!segment.NeedRemap()) return 3;
        segment.Remap();
        if (segment.NeedRemap() || segment.GetSize() != 10000) return 4;
        if (std::string(segment.GetData() + 9000) != "far out") return 5;
        checked.Signal();
        if (!shrunk.Wait()) return 6;
        // Still mapped at 10000 bytes: the area was not cut under it.
        if (!segment.NeedRemap() || segment.GetData()[9999] != '\0') return 7;
        segment.Remap();
        return segment.GetSize() == 10 ? 0 : 8;
    });
    ASSERT_TRUE(attached.Wait());
    writer.Remap(10000);
    ASSERT_EQ(10000u, writer.GetSize());
    EXPECT_FALSE(writer.NeedRemap());
    std::strcpy(writer.GetData() + 9000, "far out");
    grown.Signal();
    ASSERT_TRUE(checked.Wait());
    writer.Remap(10);
    shrunk.Signal();
    auto result = reader.Wait();
    EXPECT_TRUE(result.Succeeded()) << result.Describe();

    // The header: the size as an unsigned 32-bit integer after the semaphore, the data after it.
    uint32_t header = 0;
    char* base = static_cast<char*>(writer.GetBase());
    std::memcpy(&header, base + SharedMemorySegmentImpl::kSizeOffset, sizeof(header));
    EXPECT_EQ(base + SharedMemorySegmentImpl::kSizeOffset + 4, writer.GetData());
    EXPECT_EQ(10u, header);

    // A new name on a mapped object is removed first, and must exist.
    log.Clear();
    EXPECT_EQ(QV_FAILED, writer.Init("/qv_nowhere", 10));
    EXPECT_TRUE(log.Has(4, qvtest::PidLine("147")));
    EXPECT_TRUE(log.Has(1, qvtest::PidLine("Condition: \"res < 0\", return(\"QV_FAILED\")]")));
    EXPECT_EQ(nullptr, writer.GetBase());
    EXPECT_EQ(0, writer.LockState());
}

TEST(SharedMemorySegment, MadeUpNamesAreNeverShared) {
    auto draw = [](unsigned seed) {
        std::srand(seed);
        std::string name = "/";
        for (int i = 0; i < 10; ++i)
            name += static_cast<char>('a' + std::rand() % 26);
        return name;
    };
    std::string expected = draw(7);
    std::srand(7);
    std::string name;
    {
        SharedMemorySegmentImpl segment;
        qvtest::LogCapture log;
        ASSERT_EQ(QV_OK, segment.Init(&name, 64));
        EXPECT_EQ(expected, name);
        EXPECT_EQ(11u, name.size());
        EXPECT_TRUE(log.Has(4, qvtest::PidLine(name.substr(1))));
        EXPECT_TRUE(log.Has(4, qvtest::PidLine("")));
        EXPECT_TRUE(NameExists(name));
        EXPECT_EQ(0, segment.LockState());
        EXPECT_EQ(0, segment.UnlockState());
    }
    EXPECT_FALSE(NameExists(name));  // the destructor removed it

    // Another process holds the first five names the generator gives: all five tries fail.
    auto holder = qvtest::RunInChild([] {
        std::srand(11);
        for (int i = 0; i < 5; ++i) {
            std::string taken = "/";
            for (int j = 0; j < 10; ++j)
                taken += static_cast<char>('a' + std::rand() % 26);
            int fd = ::shm_open(taken.c_str(), O_RDWR | O_CREAT, 0600);
            if (fd < 0) return 1;
            ::close(fd);
        }
        return 0;
    });
    ASSERT_TRUE(holder.Succeeded());
    std::srand(11);
    SharedMemorySegmentImpl segment;
    EXPECT_EQ(QV_FAILED, segment.Init(&name, 64));
    EXPECT_EQ(nullptr, segment.GetBase());
}

}  // namespace
