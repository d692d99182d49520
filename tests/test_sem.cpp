#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <utility>
#include <vector>

#include "core/ipc.h"
#include "support/outcome.h"
#include "support/test_ipc.h"

namespace varnix {
namespace {

using test::failed;
using test::ok;
using test::Outcome;
using test::outcome;
using test::TestIpc;

int value_of(int semid) { return semctl(semid, 0, GETVAL); }

// Exit status of a child process that runs `body` and exits with its result.
template <typename Body>
int in_child(Body body) {
    pid_t pid = fork();
    if (pid == 0) _exit(body());
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

// The system calls a semaphore wait may sleep in, depending on the C library.
const std::vector<long> kSemSleepCalls{SYS_semop, SYS_semtimedop};

class Sem : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(ipc_.ok());
        ASSERT_EQ(value_of(ptrc()), 1);
        ASSERT_EQ(value_of(svc()), 1);
    }
    // Both locks free again whatever a test left; setting a value also drops
    // every process's pending undo for it.
    void TearDown() override {
        init_sem_val(ptrc(), 0, 1);
        init_sem_val(svc(), 0, 1);
    }

    int ptrc() const { return ipc_.collector().ids().ptrc_sem; }
    int svc() const { return ipc_.collector().ids().svc_sem; }

    TestIpc& ipc_ = TestIpc::get();
};

TEST_F(Sem, CreateAttachesTheCollectorsSetsOnly) {
    kit::Keys keys = ipc_.default_config().keys;
    EXPECT_EQ(create_sem(keys.ptrc_sem, 1), ptrc());
    EXPECT_EQ(create_sem(keys.svc_sem, 1), svc());
    EXPECT_EQ(outcome([&] { return create_sem(keys.ptrc_sem, 2); }), failed(EINVAL));
    key_t absent = keys.ptrc_sem + 1;  // a key of this process's block that names no semaphore
    EXPECT_EQ(outcome([&] { return create_sem(absent, 1); }), failed(ENOENT));
    EXPECT_EQ(outcome([&] { return create_sem(absent, 1); }), failed(ENOENT));
}

TEST_F(Sem, LockTakesAndUnlockGivesBack) {
    EXPECT_EQ(outcome([&] { return sem_lock(ptrc(), 0, kSemUndo); }), ok(0));
    EXPECT_EQ(value_of(ptrc()), 0);
    EXPECT_EQ(outcome([&] { return sem_lock(ptrc(), 0, kSemUndo | IPC_NOWAIT); }), failed(EAGAIN));
    EXPECT_EQ(value_of(svc()), 1);  // the other table's lock is apart
    EXPECT_EQ(outcome([&] { return sem_unlock(ptrc(), 0, kSemUndo); }), ok(0));
    EXPECT_EQ(value_of(ptrc()), 1);

    EXPECT_EQ(outcome([&] { return sem_lock(-1, 0, kSemUndo); }), failed(EINVAL));
    EXPECT_EQ(outcome([&] { return sem_unlock(-1, 0, kSemUndo); }), failed(EINVAL));
    EXPECT_EQ(outcome([&] { return sem_lock(ptrc(), 1, kSemUndo); }), failed(EFBIG));
    EXPECT_EQ(outcome([&] { return sem_unlock(ptrc(), 1, kSemUndo); }), failed(EFBIG));
    EXPECT_EQ(value_of(ptrc()), 1);
}

TEST_F(Sem, TheKernelReleasesADeadHoldersLock) {
    int semid = ptrc();
    EXPECT_EQ(in_child([semid] { return sem_lock(semid, 0, kSemUndo) == 0 ? 0 : 1; }), 0);
    EXPECT_EQ(value_of(semid), 1);
    // Without the undo flag the lock outlives its holder.
    EXPECT_EQ(in_child([semid] { return sem_lock(semid, 0, 0) == 0 ? 0 : 1; }), 0);
    EXPECT_EQ(value_of(semid), 0);
}

TEST_F(Sem, InitSemValSetsOrRefuses) {
    EXPECT_EQ(outcome([&] { return init_sem_val(svc(), 0, 0); }), ok(1));
    EXPECT_EQ(value_of(svc()), 0);
    EXPECT_EQ(outcome([&] { return init_sem_val(svc(), 0, 32767); }), ok(1));
    EXPECT_EQ(value_of(svc()), 32767);
    EXPECT_EQ(outcome([&] { return init_sem_val(svc(), 0, 1); }), ok(1));
    EXPECT_EQ(value_of(svc()), 1);

    EXPECT_EQ(outcome([&] { return init_sem_val(-1, 0, 1); }), failed(EINVAL));
    EXPECT_EQ(outcome([&] { return init_sem_val(svc(), 1, 1); }), failed(EINVAL));
    EXPECT_EQ(outcome([&] { return init_sem_val(svc(), 0, 32768); }), failed(ERANGE));
    EXPECT_EQ(outcome([&] { return init_sem_val(svc(), 0, -1); }), failed(ERANGE));
    EXPECT_EQ(value_of(svc()), 1);
}

}  // namespace
}  // namespace varnix
