#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>

#include "core/ipc.h"
#include "support/outcome.h"
#include "support/test_ipc.h"

namespace varnix {
namespace {

using namespace test;

int value_of(int semid) { return semctl(semid, 0, GETVAL); }

class Sem : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(ipc_.ok()); }
    // Both locks free again whatever a test left; setting a value also drops
    // every process's pending undo for it.
    void TearDown() override { EXPECT_EQ(init_sem_val(ptrc(), 0, 1) + init_sem_val(svc(), 0, 1), 2); }
    int ptrc() const { return ipc_.collector().ids().ptrc_sem; }
    int svc() const { return ipc_.collector().ids().svc_sem; }
    TestIpc& ipc_ = TestIpc::get();
};

TEST_F(Sem, LockIsExclusiveAndReleasedWithADeadHolder) {
    EXPECT_EQ(outcome([&] { return sem_lock(ptrc(), 0, kSemUndo); }), ok(0));
    EXPECT_EQ(outcome([&] { return sem_lock(ptrc(), 0, kSemUndo | IPC_NOWAIT); }), failed(EAGAIN));
    EXPECT_EQ(outcome([&] { return sem_unlock(ptrc(), 0, kSemUndo); }), ok(0));
    EXPECT_EQ(outcome([&] { return sem_unlock(-1, 0, kSemUndo); }), failed(EINVAL));
    EXPECT_EQ(outcome([&] { return sem_lock(ptrc(), VARNIX_PTRC_SEM_CNT, kSemUndo); }), failed(EFBIG));
    EXPECT_EQ(value_of(ptrc()), 1);
    pid_t pid = fork();
    if (pid == 0) _exit(sem_lock(ptrc(), 0, kSemUndo) == 0 ? 0 : 1);
    int status = -1;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);  // it exited holding the lock...
    EXPECT_EQ(value_of(ptrc()), 1);  // ...which the kernel gave back
}

TEST_F(Sem, CreateAttachesOnlyAndInitSetsOrRefuses) {
    EXPECT_EQ(create_sem(ipc_.default_config().keys.ptrc_sem, 1), ptrc());
    // A key of this process's block that names no semaphore: never created.
    EXPECT_EQ(outcome([&] { return create_sem(ipc_.default_config().keys.ptrc_sem + 1, 1); }), failed(ENOENT));
    // Nor for key 0, IPC_PRIVATE, for which the system would make a new set.
    EXPECT_EQ(outcome([&] { return create_sem(IPC_PRIVATE, 1); }), failed(ENOENT));
    EXPECT_EQ(outcome([&] { return init_sem_val(svc(), 0, 32767); }), ok(1));
    EXPECT_EQ(value_of(svc()), 32767);
    EXPECT_EQ(outcome([&] { return init_sem_val(-1, 0, 1); }), failed(EINVAL));
    EXPECT_EQ(outcome([&] { return init_sem_val(svc(), 0, 32768); }), failed(ERANGE));
    EXPECT_EQ(outcome([&] { return init_sem_val(svc(), 0, -1); }), failed(ERANGE));
    EXPECT_EQ(value_of(svc()), 32767);
}

}  // namespace
}  // namespace varnix
