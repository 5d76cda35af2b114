// One interface over the engine's connection counters at their three scopes: all connections, those of one peer, and a
// single one. The same identifiers (RE_stat_conn_id) exist at every scope, so every block of a report is written once.
#pragma once

// Gives access to the counters of one scope. A view creates one to print with. It owns nothing and is valid while the
// run's reader is open. Every get() reads the counter again, so two reads of a live counter may differ.
class RE_conn_slot
{
public:
    // Returns the counter (id: an RE_stat_conn_id) at this scope; 0 when the reader does not have it.
    virtual long long get(int id) const = 0;
    // Whether the counters are sums over many connections.
    virtual bool is_aggregated() const = 0;
    virtual ~RE_conn_slot() = default;
};

// All connections of the engine.
class RE_global_conn_slot : public RE_conn_slot
{
public:
    long long get(int id) const override;
    bool is_aggregated() const override { return true; }
};

// All connections with the peer in one of the reader's peer slots (an index, not the peer's number).
class RE_peer_conn_slot : public RE_conn_slot
{
public:
    explicit RE_peer_conn_slot(int peer_slot) : m_peer_slot(peer_slot) {}
    long long get(int id) const override;
    bool is_aggregated() const override { return true; }

private:
    int m_peer_slot;
};

// The connection in one of the reader's connection slots (an index, not the connection's id).
class RE_conn_conn_slot : public RE_conn_slot
{
public:
    explicit RE_conn_conn_slot(int conn_slot) : m_conn_slot(conn_slot) {}
    long long get(int id) const override;
    bool is_aggregated() const override { return false; }

private:
    int m_conn_slot;
};
