// `varnix-agent cleanup`: removes the objects of a configuration that no
// running agent holds, whatever state they are in; the way out when `start`
// refuses to take them over.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "collector/agent.h"
#include "collector/agent_objects.h"

namespace varnix::agent {

int cleanup_command(const Options& o) {
    const char* cfg = o.cfg.c_str();
    if (!check_config(cfg)) return 1;
    const ConfigKeys keys = config_keys(cfg);
    const collector::HostObjects::Ids ids = collector::ids_of(keys.keys, keys.max_que_cnt);
    AgentToken token;  // held until its set goes, last: no agent takes the objects over meanwhile
    if (refuse_if_agent_runs(token, ids.ptrc_sem, "refusing to clean up", cfg)) return 1;
    int removed = 0, failed = 0;
    for (const ConfigObject& obj : config_objects(keys, ids)) {
        if (obj.id < 0) continue;
        if (collector::remove_object(collector::IpcObject{obj.kind, obj.id, obj.key}) == 0) {
            std::printf("varnix-agent: removed %s, id %d\n", describe(obj).c_str(), obj.id);
            ++removed;
        } else {
            std::fprintf(stderr, "varnix-agent: cannot remove %s, id %d: %s\n", describe(obj).c_str(), obj.id,
                         std::strerror(errno));
            ++failed;
        }
    }
    if (removed + failed == 0) std::printf("varnix-agent: no object of %s exists; nothing was removed\n", cfg);
    return failed > 0 ? 1 : 0;
}

}  // namespace varnix::agent
