#include "RE_conn_slot.h"

#include "RE_viewer_reader.h"

long long RE_global_conn_slot::get(int id) const
{
    long long value = 0;
    p_statReader->read_global_conn_stat(id, value);
    return value;
}

long long RE_peer_conn_slot::get(int id) const
{
    long long value = 0;
    p_statReader->read_peer_conn_stat(m_peer_slot, id, value);
    return value;
}

long long RE_conn_conn_slot::get(int id) const
{
    long long value = 0;
    p_statReader->read_conn_stat(m_conn_slot, id, value);
    return value;
}
