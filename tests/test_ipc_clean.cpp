#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "kit/collector.h"
#include "kit/manifest.h"

namespace varnix {
namespace {

bool exists(int qid) {
    msqid_ds ds{};
    return msgctl(qid, IPC_STAT, &ds) == 0;
}

// Queues this test ends up holding, removed also when it fails half-way.
struct Held {
    std::vector<int> ids;
    ~Held() {
        for (int id : ids) msgctl(id, IPC_RMID, nullptr);
    }
};

// A process that dies leaving two queues created through the kit; a queue in
// its key block that nobody listed; a listed queue given to another user; and
// the cleaner, which must remove only what the dead process's manifest proves.
TEST(IpcClean, RemovesOnlyListedObjectsOfDeadCreatorsThatTheUserOwns) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const key_t base = kit::keys_for_pid(getpid()).msgq;
        _exit(kit::create_queue(base) >= 0 && kit::create_queue(base + 1) >= 0 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_EQ(status, 0);
    const std::string manifest = kit::manifest_dir() + "/" + std::to_string(child);
    kit::Manifest m;
    ASSERT_TRUE(kit::read_manifest(manifest, m));
    ASSERT_EQ(m.creator, child);
    ASSERT_EQ(m.objects.size(), 2u);
    Held held{{m.objects[0].id, m.objects[1].id}};
    const key_t base = kit::keys_for_pid(child).msgq;
    EXPECT_TRUE(m.objects[0].kind == collector::IpcKind::msg && m.objects[0].key == base &&
                m.objects[1].key == base + 1);

    const int unlisted = msgget(base + 2, IPC_CREAT | IPC_EXCL | 0666);
    ASSERT_GE(unlisted, 0);
    held.ids.push_back(unlisted);
    const int own = kit::create_queue(kit::keys_for_pid(getpid()).msgq);  // listed, creator alive
    ASSERT_GE(own, 0);
    held.ids.push_back(own);
    const bool root = geteuid() == 0;  // only root can hand a queue to another user
    if (root) {
        msqid_ds ds{};
        ASSERT_EQ(msgctl(m.objects[1].id, IPC_STAT, &ds), 0);
        ds.msg_perm.uid = 65534;
        ASSERT_EQ(msgctl(m.objects[1].id, IPC_SET, &ds), 0);
    }

    ASSERT_EQ(std::system(VARNIX_IPC_CLEAN " >/dev/null"), 0);
    EXPECT_FALSE(exists(m.objects[0].id));
    EXPECT_EQ(exists(m.objects[1].id), root);
    EXPECT_TRUE(exists(unlisted) && exists(own));
    EXPECT_NE(access(manifest.c_str(), F_OK), 0);
    EXPECT_EQ(access((kit::manifest_dir() + "/" + std::to_string(getpid())).c_str(), F_OK), 0);
    EXPECT_EQ(kit::remove_queue(own), 0);
}

}  // namespace
}  // namespace varnix
