// The client's settings: read once from the configuration store, or the defaults of standalone mode.
#pragma once

#include "rexec.h"
#include "trans.h"

#include <atomic>
#include <cstdint>

inline constexpr std::int32_t REXECCL_PORT_DEFAULT = 29002; // standalone mode only

// Communication policy of the command.
struct REXECCL_POLICY_INFO {
    char type[32];
    char version[TRANS_VERSION_LEN]; // sent in every header
    std::int32_t loglevel;
    std::int32_t logsize;
    std::int32_t recv_packet_size; // largest single read of a variable part, bytes
    std::int32_t send_packet_size; // largest single write, bytes
    std::int32_t max_packet_size;
    std::int32_t connretry;
    std::int32_t conntimeout; // seconds for one connect attempt
    std::int32_t resretry;
    std::int32_t restimeout; // seconds for one exchange
    std::int32_t usedns;     // whether a host name is resolved after its addresses failed
};

// Cluster-wide policy.
struct REXECCL_ALLPOL_INFO {
    TRANS_CLUSTER_INFO clsinfo; // sent in every header
    char instpath[1025];        // 1024 bytes as read, and the "/" that is always appended
    std::int32_t port;
};

struct REXECCL_CONFIG_INFO {
    std::int32_t port; // of the data transfer server
};

// Written by the first rexeccl_initialize only, read by every thread afterwards.
extern REXECCL_POLICY_INFO _rexeccl_policy;
extern REXECCL_ALLPOL_INFO _rexeccl_allpol;
extern REXECCL_CONFIG_INFO _rexeccl_config;

// TRANS_FLAG_ON while the client is initialised; changed under the initialisation mutex.
extern std::atomic<std::int32_t> _rexeccl_initflag;

// Reads all settings. Returns 0, or REXECCL_RET_FAIL_UNKOWN with everything unloaded again.
std::int32_t rexeccl_get_config(const REXEC_INFO *info);

// One step each of the above. They return 0, REXECCL_RET_FAIL_UNKOWN, or REXECCL_RET_FAIL_MALLOC.
std::int32_t rexeccl_xml_init(const char *module);
std::int32_t rexeccl_xml_term();
std::int32_t rexeccl_xml_loadpolicy(const char *type);
std::int32_t rexeccl_xml_unloadpolicy(const char *type); // null for all that are loaded
std::int32_t rexeccl_xml_loadconfig(const char *path, void **handle);
std::int32_t rexeccl_xml_unloadconfig(void *handle);
std::int32_t rexeccl_xml_get_allpolicy();
std::int32_t rexeccl_xml_get_mypolicy(const REXEC_INFO *info);
