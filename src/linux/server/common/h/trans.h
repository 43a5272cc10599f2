// The data transfer protocol: the 76-byte packet header, the execute-parameter envelope, and the
// numbers that travel in them. Layouts and numbers only; doc/protocol.md explains each of them.
//
// All integers are 32 bits wide and big-endian on the wire. Character fields are fixed-width
// arrays padded with NUL; a peer may fill the whole width without a terminating NUL.
#pragma once

#include <cstddef>
#include <cstdint>

// Field widths in bytes.
inline constexpr std::size_t TRANS_MAGICWD_LEN = 8;
inline constexpr std::size_t TRANS_CMDLINE_LEN = 256;
inline constexpr std::size_t TRANS_FILENAME_LEN = 255;
inline constexpr std::size_t TRANS_VERSION_LEN = 16;
inline constexpr std::size_t TRANS_ID_LEN = 32;
inline constexpr std::size_t TRANS_IP_LEN = 46; // text of an address with its NUL, INET6_ADDRSTRLEN
// Largest variable part that a receiver accepts, in bytes.
inline constexpr std::uint32_t TRANS_VARIABLE_MAX = 500000;

inline constexpr char TRANS_MAGICWD[] = "trnsv";
inline constexpr char TRANS_MAGICWD_LINUX[] = "l_trnsv";   // sent in every request of this client
inline constexpr char TRANS_MAGICWD_WINDOWS[] = "w_trnsv"; // its version field is not compared

// Which edition and version of the cluster product the sender runs; part of every header.
struct TRANS_CLUSTER_INFO {
    char edition[TRANS_VERSION_LEN];
    char version[TRANS_VERSION_LEN];
};
static_assert(sizeof(TRANS_CLUSTER_INFO) == 32);

struct TRANS_PACKET_HEADER_INFO {
    char magicwd[TRANS_MAGICWD_LEN];
    char version[TRANS_VERSION_LEN]; // of the sender's communication policy
    TRANS_CLUSTER_INFO clsinfo;
    std::int32_t ncode;    // TRANS_REQ_* or TRANS_RES_*
    std::int32_t seq;      // sequence number of a multi-packet transfer
    std::int32_t status;   // TRANS_RES_STAT_*; 0 in requests
    std::uint32_t allsize; // bytes of data in the whole transfer
    std::uint32_t size;    // bytes of the variable part behind this header
};
static_assert(sizeof(TRANS_PACKET_HEADER_INFO) == 76);
static_assert(offsetof(TRANS_PACKET_HEADER_INFO, version) == 8);
static_assert(offsetof(TRANS_PACKET_HEADER_INFO, clsinfo.edition) == 24);
static_assert(offsetof(TRANS_PACKET_HEADER_INFO, clsinfo.version) == 40);
static_assert(offsetof(TRANS_PACKET_HEADER_INFO, ncode) == 56);
static_assert(offsetof(TRANS_PACKET_HEADER_INFO, seq) == 60);
static_assert(offsetof(TRANS_PACKET_HEADER_INFO, status) == 64);
static_assert(offsetof(TRANS_PACKET_HEADER_INFO, allsize) == 68);
static_assert(offsetof(TRANS_PACKET_HEADER_INFO, size) == 72);

// One packet in memory: the header, and directly behind it the variable part of `hdinfo.size` bytes.
struct TRANS_PACKET_INFO {
    TRANS_PACKET_HEADER_INFO hdinfo;
    char data[]; // NOLINT: the variable part
};
static_assert(offsetof(TRANS_PACKET_INFO, data) == 76);

// Variable part of TRANS_REQ_EXEC_PARAM: this envelope, then `size` bytes of payload.
struct TRANS_REQ_EXEC_PARAM_INFO {
    char type[TRANS_ID_LEN]; // which function the server is to run
    std::int32_t limiter;
    std::uint32_t size;
};
static_assert(sizeof(TRANS_REQ_EXEC_PARAM_INFO) == 40);
static_assert(offsetof(TRANS_REQ_EXEC_PARAM_INFO, limiter) == 32);
static_assert(offsetof(TRANS_REQ_EXEC_PARAM_INFO, size) == 36);

// Variable part of TRANS_RES_EXEC_PARAM: this envelope, then `size` bytes of payload.
struct TRANS_RES_EXEC_PARAM_INFO {
    std::uint32_t rts; // return value of the function that the server ran
    std::uint32_t size;
};
static_assert(sizeof(TRANS_RES_EXEC_PARAM_INFO) == 8);
static_assert(offsetof(TRANS_RES_EXEC_PARAM_INFO, size) == 4);

// Records that only other clients of the protocol send or receive.
struct TRANS_RES_NODENUM_INFO {
    std::int32_t nnodenum;
    std::int32_t nipnum;
};
static_assert(sizeof(TRANS_RES_NODENUM_INFO) == 8);

struct TRANS_RES_NODE_INFO {
    std::int32_t nnodenum;
    std::uint32_t nsize; // bytes of szdata; stays in network byte order
    char szdata[];       // NOLINT
};
static_assert(offsetof(TRANS_RES_NODE_INFO, szdata) == 8);

struct TRANS_NODE_LAN_INFO {
    std::int32_t npriority;
    char szip[TRANS_IP_LEN];
};
static_assert(offsetof(TRANS_NODE_LAN_INFO, szip) == 4);

struct TRANS_NODE_INFO {
    char szhost[256];
    std::int32_t npriority;
    std::uint32_t nsize; // bytes of szdev
    char szdev[];        // NOLINT
};
static_assert(offsetof(TRANS_NODE_INFO, npriority) == 256 && offsetof(TRANS_NODE_INFO, szdev) == 264);

struct TRANS_REQ_ARSIZE_INFO {
    char scrid[TRANS_ID_LEN];
    char coltype[32];
    std::int32_t syslogrotatenum;
    char vardir[256];
};
static_assert(offsetof(TRANS_REQ_ARSIZE_INFO, syslogrotatenum) == 64);

struct TRANS_RES_ARSIZE_INFO {
    std::int32_t arsize;
    char arname[TRANS_FILENAME_LEN];
};
static_assert(offsetof(TRANS_RES_ARSIZE_INFO, arname) == 4);

struct TRANS_REQ_DELIVERY_INFO {
    char id[TRANS_ID_LEN];
    std::uint32_t arsize;
    std::uint32_t size; // bytes of data
    char data[];        // NOLINT
};
static_assert(offsetof(TRANS_REQ_DELIVERY_INFO, arsize) == 32 &&
              offsetof(TRANS_REQ_DELIVERY_INFO, data) == 40);

struct TRANS_RES_EXECCMD_INFO {
    std::int32_t stat;
};
struct TRANS_RES_SVRACTION_INFO {
    std::int32_t action;
};
static_assert(sizeof(TRANS_RES_EXECCMD_INFO) == 4 && sizeof(TRANS_RES_SVRACTION_INFO) == 4);

struct TRANS_REQ_GET_PARAM_INFO {
    char type[TRANS_ID_LEN];
    std::uint32_t size; // bytes of data
    char data[];        // NOLINT
};
static_assert(offsetof(TRANS_REQ_GET_PARAM_INFO, data) == 36);

struct TRANS_RES_GET_PARAM_INFO {
    std::uint32_t rts;
    std::uint32_t size; // bytes of data
    char data[];        // NOLINT
};
static_assert(offsetof(TRANS_RES_GET_PARAM_INFO, data) == 8);

// Each request code is followed by its response code, one higher.
enum : std::int32_t {
    TRANS_REQ_HEAD_W = -10,
    TRANS_RES_HEAD_W = -9,
    TRANS_REQ_HEAD = -8,
    TRANS_RES_HEAD = -7,
    TRANS_REQ_LAN_NODEINFO = -6,
    TRANS_RES_LAN_NODEINFO = -5,
    TRANS_REQ_NODEINFO = -4,
    TRANS_RES_NODEINFO = -3,
    TRANS_REQ_INFO_NODE = -2,
    TRANS_RES_INFO_NODE = -1,
    TRANS_REQ_INITIALIZE = 0,
    TRANS_RES_INITIALIZE = 1,
    TRANS_REQ_GET_NODENUM = 2,
    TRANS_RES_GET_NODENUM = 3,
    TRANS_REQ_GET_NODELIST = 4,
    TRANS_RES_GET_NODELIST = 5,
    TRANS_REQ_GET_NODELIST_NEXT = 6,
    TRANS_RES_GET_NODELIST_NEXT = 7,
    TRANS_REQ_GET_LOG_ARSIZE = 8,
    TRANS_RES_GET_LOG_ARSIZE = 9,
    TRANS_REQ_GET_ARSIZE = 10,
    TRANS_RES_GET_ARSIZE = 11,
    TRANS_REQ_COLLECT = 12,
    TRANS_RES_COLLECT = 13,
    TRANS_REQ_COLLECT_NEXT = 14,
    TRANS_RES_COLLECT_NEXT = 15,
    TRANS_REQ_DELIVERY = 16,
    TRANS_RES_DELIVERY = 17,
    TRANS_REQ_DELIVERY_NEXT = 18,
    TRANS_RES_DELIVERY_NEXT = 19,
    TRANS_REQ_PUT_ALLOW = 20,
    TRANS_RES_PUT_ALLOW = 21,
    TRANS_REQ_PUT_DENY = 22,
    TRANS_RES_PUT_DENY = 23,
    TRANS_REQ_CANCEL = 24,
    TRANS_RES_CANCEL = 25,
    TRANS_REQ_EXEC_COMMAND = 26,
    TRANS_RES_EXEC_COMMAND = 27,
    TRANS_REQ_TERMINATE = 28,
    TRANS_RES_TERMINATE = 29,
    TRANS_REQ_GET_SVRACTION = 30,
    TRANS_RES_GET_SVRACTION = 31,
    TRANS_REQ_GET_PARAM = 32,
    TRANS_RES_GET_PARAM = 33,
    TRANS_REQ_EXEC_PARAM = 34,
    TRANS_RES_EXEC_PARAM = 35,
    TRANS_REQ_INITIALIZE_CHK = 36,
    TRANS_RES_INITIALIZE_CHK = 37,
    TRANS_REQ_RSC_START = 38,
    TRANS_RES_RSC_START = 39,
    TRANS_REQ_RSC_STOP = 40,
    TRANS_RES_RSC_STOP = 41,
    TRANS_REQ_PREPUT_ALLOW = 42,
    TRANS_RES_PREPUT_ALLOW = 43,
};

// 0 is success, every other value a failure (1 is told like a success). A value that is not
// listed is a failure too. The spelling of UNKOWN and COMUNICATION belongs to the protocol.
enum : std::int32_t {
    TRANS_RES_STAT_SUCCESS = 0,
    TRANS_RES_STAT_SUCCESS_NOTDATA = 1,
    TRANS_RES_STAT_FAIL_INSTRUCTMSG = 2,
    TRANS_RES_STAT_FAIL_UNKOWN_REQUEST = 3,
    TRANS_RES_STAT_FAIL_NOTINITIALIZED = 4,
    TRANS_RES_STAT_FAIL_INITIALIZED = 5,
    TRANS_RES_STAT_FAIL_INVALIDCONF = 6,
    TRANS_RES_STAT_FAIL_COMUNICATION = 7,
    TRANS_RES_STAT_FAIL_CMDTIMEOUT = 8,
    TRANS_RES_STAT_FAIL_BUSY = 9,
    TRANS_RES_STAT_FAIL_MEMALLOC = 10,
    TRANS_RES_STAT_FAIL_IO = 11,
    TRANS_RES_STAT_FAIL_FCTRL = 12,
    TRANS_RES_STAT_FAIL_NOEXISTCMD = 13,
    TRANS_RES_STAT_FAIL_NODATA = 14,
    TRANS_RES_STAT_FAIL_NOTEXISTFILE = 15,
    TRANS_RES_STAT_FAIL_NOFREESPACE = 16,
    TRANS_RES_STAT_FAIL_ARCHIVE = 17,
    TRANS_RES_STAT_FAIL_UNKOWN = 18,
    TRANS_RES_STAT_FAIL_SHMATTACH = 19,
    TRANS_RES_STAT_FAIL_SHMGET = 20,
    TRANS_RES_STAT_FAIL_NOACTCIALERT = 21,
    TRANS_RES_STAT_FAIL_NOACTGRP = 22,
    TRANS_RES_STAT_FAIL_NOEXISTSRV = 23,
    TRANS_RES_STAT_FAIL_NOEXISTRSC = 24,
    TRANS_RES_STAT_FAIL_NOEXISTSCRIPT = 25,
    TRANS_RES_STAT_FAIL_NOTAVAILABLE = 26,
    TRANS_RES_STAT_FAIL_PARAMTIMEOUT = 27,
    TRANS_RES_STAT_FAIL_NOTPERMIT = 28,
    TRANS_RES_STAT_FAIL_EXECUTE = 29,
    TRANS_RES_STAT_FAIL_INTERNAL = 30,
    TRANS_RES_STAT_FAIL_NOEXISTGRP = 31,
    TRANS_RES_STAT_FAIL_SOMEEXECUTE = 32,
    TRANS_RES_STAT_FAIL_LATEEXECUTE = 33,
    TRANS_RES_STAT_FAIL_SHMSET = 34,
    TRANS_RES_STAT_FAIL_NOTACTMON = 35,
    TRANS_RES_STAT_FAIL_ERRMON = 36,
    TRANS_RES_STAT_FAIL_SCRIPTTIMEOUT = 37,
    TRANS_RES_STAT_FAIL_NOSET = 38,
    TRANS_RES_STAT_FAIL_INVALIDMONSTAT = 39,
    TRANS_RES_STAT_FAIL_INVALIDPARAM = 40,
    TRANS_RES_STAT_NORECOVERY = 99,
};

// Whether the client is initialised.
enum : std::int32_t {
    TRANS_FLAG_ON = -1,
    TRANS_FLAG_OFF = 0,
};

// Directions of the payload conversion functions, to be or-ed: which packet, into which order.
enum : int {
    TRANS_CONV_BYTEORDER_NETWIRK = 1,
    TRANS_CONV_BYTEORDER_HOST = 2,
    TRANS_CONV_BYTEORDER_REQ = 256,
    TRANS_CONV_BYTEORDER_RES = 512,
};
