// The ids of all counters, generated from RE_stat_counters.def. In each enumeration, RE_STAT_..._ID_MAX is one above
// the last id.
//
// This header is also C, for engines that use kav_core.h.
#pragma once

// C has no underlying types; its compilers take int.
#ifdef __cplusplus
#define RE_STAT_ID_TYPE : int
#else
#define RE_STAT_ID_TYPE
#endif

// Counters of the engine as a whole, the ids of read_global_stat.
enum RE_stat_global_id RE_STAT_ID_TYPE
{
#define RE_STAT_GLOBAL(value, enumerator, ...) enumerator = (value),
#define RE_STAT_GLOBAL_RANGE(first, last, enumerator, ...) enumerator = (first),
#define RE_STAT_GLOBAL_END(value, enumerator) enumerator = (value),
#include "RE_stat_counters.def"
    RE_STAT_GLOBAL_ID_MAX,
    SO_STAT_RC_MAX = SO_STAT_HWFQ_BYTES_DSCP_BASE,
};

// Counters of one peer, the ids of read_peer_stat.
enum RE_stat_peer_id RE_STAT_ID_TYPE
{
#define RE_STAT_PEER(value, enumerator, ...) enumerator = (value),
#include "RE_stat_counters.def"
    RE_STAT_PEER_ID_MAX,
};

// Counters of connections, the ids of read_conn_stat, read_peer_conn_stat and read_global_conn_stat. Bytes, times and
// sizes come first; counts of events start at RE_STAT_CONN_ID_MAX_LONG_LONG.
enum RE_stat_conn_id RE_STAT_ID_TYPE
{
#define RE_STAT_CONN(value, enumerator, ...) enumerator = (value),
#include "RE_stat_counters.def"
    RE_STAT_CONN_ID_MAX,
    RE_STAT_CONN_ID_MAX_LONG_LONG = RE_STAT_CONN_ID_ENCODE_NUM_MSGS,
};

// Counters of one application, indexes into RE_stat_app_struct::m_id_array.
enum RE_stat_app_id RE_STAT_ID_TYPE
{
#define RE_STAT_APP(value, enumerator, ...) enumerator = (value),
#include "RE_stat_counters.def"
    RE_STAT_APP_ID_MAX,
};

#undef RE_STAT_ID_TYPE
