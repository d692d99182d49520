// The System V objects of one configuration, found by key, as `start` and
// `cleanup` judge them; and the token by which a running agent is known.
//
// The running agent holds semaphore VARNIX_PTRC_SEM_AGENT of the process-
// thread table's set at 1, raised with SEM_UNDO (collector::take_agent_token):
// the kernel lowers it again when the agent ends, however it ends.  Whether the
// objects exist says nothing about an agent; the token does.  Two processes
// can never hold it at once: an agent that creates the objects holds it
// before the last of them exists, one that takes them over holds it before it
// looks at them, and `cleanup` holds it while it removes them.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "collector/agent_config.h"
#include "collector/ipc_object.h"

namespace varnix::agent {

// One object of a configuration; id -1 when none exists under its key.
struct ConfigObject {
    collector::IpcKind kind;
    std::string name;  // "TRAN_LOGF_QUE_INFO", ..., "3" for queue 3
    key_t key;
    int id;
    size_t size;       // bytes of a block, semaphores of a set
};

// Every object of the configuration: the three blocks, the queues, then the
// two semaphore sets, the process-thread table's last (it carries the token).
std::vector<ConfigObject> config_objects(const ConfigKeys& c, const collector::HostObjects::Ids& ids);
// "shared memory TRAN_LOGF_QUE_INFO (key 0x000004d2)", the key as ipcs shows it
std::string describe(const ConfigObject& o);

class AgentToken {
public:
    AgentToken() = default;
    ~AgentToken();
    AgentToken(const AgentToken&) = delete;
    AgentToken& operator=(const AgentToken&) = delete;

    // Takes the token of the set `semid`; false with errno (EAGAIN: another
    // process holds it).
    bool take(int semid);
    bool held() const { return semid_ >= 0; }
    // The set was removed, and the token with it.
    void forget() { semid_ = -1; }

private:
    int semid_ = -1;
};

// When another process holds the token of `semid`, says so on standard error,
// naming it and `refusing` ("refusing to start"), and returns true; else
// takes it into `token` when the set has it.
bool refuse_if_agent_runs(AgentToken& token, int semid, const char* refusing, const char* cfg);

// What keeps the objects of `ids` from being taken over by an agent of this
// configuration, one line each; empty when they can be.  Nothing is changed.
std::vector<std::string> adoption_problems(const ConfigKeys& c, const collector::HostObjects::Ids& ids);

}  // namespace varnix::agent
