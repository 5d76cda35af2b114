// The reports on the small engine, as whole texts and as the parts that they share.
#pragma once

#include <string>

inline const std::string rule_of_78 = std::string(78, '-') + "\n";
inline const std::string rule_of_79 = std::string(79, '-') + "\n";

inline const std::string cache_summary = "\nCache:\n"
                                         "    Status: Usable\n"
                                         "    Total usable disk size:   2000 MB,  Used: 50.00%\n"
                                         "      Hash table RAM  size:     64 MB,  Used: 56.25%\n"
                                         "    Sigblock usage:  disk:    300 MB, memory: 12.50% age: 5d3h\n"
                                         "   Data unit usage:  disk:    700 MB, memory: 43.75% age: 45d\n";

inline const std::string cache_detail =
    "\nCache details:\n"
    "  Cache created at: 03/13/2011 07:06:40\n"
    "  Evicted cache in loading cache: 102400 B\n"
    "  Sigblock replaced(last hour): size     12 MB, sections 120\n"
    "  Data units replaced(last hour): size     34 MB, sections 340\n"
    "  Cache write padding events:\n"
    "  Sigblock: cnt 1, size   4096 B\n"
    "  Dataunit: secblock cnt 2, size   8192 B, segment cnt 3, size    200 KB\n"
    "  NG clock head 5000, NG clock tail 4000\n"
    "  Total read speed (disk + kernel-cache):      7 ms in 21 reads\n"
    "  Disk read speed                       :     12 ms in 20 reads\n"
    "  Index table full events:  1\n"
    "  Index table sig events:  2\n"
    "  Index table type 2 events:  3\n"
    "  Index table type 3 events:  4\n"
    "  Sigblock: Total 1000 chunks stored in 100 sections\n"
    "  Secblock: Total 3500 chunks stored in 350 sections\n"
    "  Total anchor seen: 900, total matches seen: 600, matched more than once: 300 \n"
    "\nAck Queue:   1500 B  Used Disk:   2500 B      Wait Queue:   3500 B\n"
    "Ack Queue: Total disk write:   4500 B   Optimized size:   5500 B\n"
    "Ack Queue: Object buffer size:   6500 B Numbers: 65\n"
    "Lowmem Errors:  Open:        1,    Decode:        2,    Malloc:        3\n"
    "                PLZ-off :        4,    MinRes:        5\n"
    "\nChunk aggregation node memory consumption:   7500 B\n"
    "\nPersistent LZ:\n"
    "Twin pool stats: big-used=      11, big-free=      12, small-used=      13, small-free=      14, defragment=15\n"
    "Encode:\n"
    "  PLZ-ON  connections: num=      21, avg-msg-size= 22000 B\n"
    "  PLZ-OFF connections: num=      23\n"
    "Decode:\n"
    "  Total disk read:       31, disk write:       32\n"
    "  PLZ-ON  connections: num=      33, num-in-disk=34\n"
    "  PLZ-OFF connections: num=      35\n"
    "\nTop Application:\n"
    "  Update: Succeed        3 (75.00%), Fail        1 (25.00%)\n";

inline const std::string busy_encode =
    "Encode: Sigblock oldest data (age): 5d3h\n"
    "   Overall: msg:         10, in:    976 KB, out:    244 KB, ratio:  75.00%\n"
    "       KAV: msg:          8, in:    781 KB, out:    292 KB, ratio:  62.50%\n"
    "KAV Bypass: msg:          2, in:    195 KB\n"
    "        LZ: msg:          6, in:    390 KB, out: 100000 B, ratio:  75.00%\n"
    " LZ Bypass: msg:          4, in: 100000 B\n"
    "    Avg latency:      2.500 ms  disk latency:      0.500 ms  Delayed msg:          3\n"
    " Average message size: 100000 B\n"
    "  Message size distribution:\n"
    "    0-1K=10%  1K-5K=20%  5K-15K=30%  15K-25K=40%  25K-40K=0%  >40K=0%\n";

inline const std::string idle_encode =
    "Encode: Sigblock oldest data (age): 5d3h\n"
    "   Overall: msg:          0, in:      0 B, out:      0 B, ratio:   0.00%\n"
    "       KAV: msg:          0, in:      0 B, out:      0 B, ratio:   0.00%\n"
    "KAV Bypass: msg:          0, in:      0 B\n"
    "        LZ: msg:          0, in:      0 B, out:      0 B, ratio:   0.00%\n"
    " LZ Bypass: msg:          0, in:      0 B\n"
    "    Avg latency:      0.000 ms  disk latency:      0.000 ms  Delayed msg:          0\n"
    " Average message size:      0 B\n"
    "  Message size distribution:\n"
    "    0-1K=0%  1K-5K=0%  5K-15K=0%  15K-25K=0%  25K-40K=0%  >40K=0%\n";

inline const std::string busy_decode = "Decode: Data unit oldest data (age): 45d\n"
                                       "   Overall: msg:          4, in:   1000 B, out:   4000 B, ratio:  75.00%\n"
                                       "       KAV: msg:          3, in:    900 B, out:   3000 B, ratio:  70.00%\n"
                                       "KAV Bypass: msg:          1, in:   1000 B\n"
                                       "        LZ: msg:          2, in:    600 B, out:   1200 B, ratio:  50.00%\n"
                                       " LZ Bypass: msg:          2, in:    400 B\n"
                                       "    Avg latency:      1.500 ms  disk latency:      0.250 ms\n"
                                       " Average message size:   1000 B\n"
                                       "  Message size distribution:\n"
                                       "    0-1K=25%  1K-5K=25%  5K-15K=25%  15K-25K=0%  25K-40K=0%  >40K=25%\n";

inline const std::string idle_decode = "Decode: Data unit oldest data (age): 45d\n"
                                       "   Overall: msg:          0, in:      0 B, out:      0 B, ratio:   0.00%\n"
                                       "       KAV: msg:          0, in:      0 B, out:      0 B, ratio:   0.00%\n"
                                       "KAV Bypass: msg:          0, in:      0 B\n"
                                       "        LZ: msg:          0, in:      0 B, out:      0 B, ratio:   0.00%\n"
                                       " LZ Bypass: msg:          0, in:      0 B\n"
                                       "    Avg latency:      0.000 ms  disk latency:      0.000 ms\n"
                                       " Average message size:      0 B\n"
                                       "  Message size distribution:\n"
                                       "    0-1K=0%  1K-5K=0%  5K-15K=0%  15K-25K=0%  25K-40K=0%  >40K=0%\n";

inline const std::string search_costs = "      num_used_block per msg for encode: 2.000000\n"
                                        "      num_read_block per msg for encode: 0.500000\n"
                                        "      encode search list length per msg: 1.500000\n"
                                        "      number of section used for encode per msg: 1.250000\n"
                                        "      number of ranges used for encode per msg: 2.500000\n"
                                        "      average matched range chunk cnt: 2.750000\n";

inline const std::string no_search_costs = "      num_used_block per msg for encode: 0.000000\n"
                                           "      num_read_block per msg for encode: 0.000000\n"
                                           "      encode search list length per msg: 0.000000\n"
                                           "      number of section used for encode per msg: 0.000000\n"
                                           "      number of ranges used for encode per msg: 0.000000\n"
                                           "      average matched range chunk cnt: 0.000000\n";

inline const std::string bypass_causes = "  Encode bypass due to:\n"
                                         "      low memory: messages: 1,  size:  50000 B\n"
                                         "      last partial chunk: chunks: 5,  size:   3000 B\n"
                                         "      KAV low compression auto bypass: messages: 1,  size:    146 KB\n";

inline const std::string engine_conn_detail =
    "\nConnection details:\n"
    "  Chunks: encoded 500,  decoded 70,  anchor(forced) 450(50)\n"
    "  Total number of processed messges: 14\n" +
    search_costs + "  Ack: msg 14,  size    224 B\n" + bypass_causes +
    "  Nacks: total 3 collision 1 chunk-miss 2\n"
    "  R-tx: total 4 cache-not-ready 4\n"
    "  Invalidated 5 sections (5 due to converted cache) \n"
    "  Encode LZ latency:  2.000 ms per msg, zlib latency:  1.500 ms, average message size:  66666 B\n"
    "  Decode LZ latency:  1.500 ms per msg, zlib latency:  0.500 ms, average message size:    600 B\n"
    "\n  Cache write detail:\n"
    "  Section written:\n"
    "  Sigblock: cnt: 7, size:   3500 B, new size:   3400 B\n"
    "  Dataunit: cnt: 9, size:   4500 B, new size:   4400 B\n"
    "  Disk size saving due to data single instance:  11111 B\n"
    "  Disk size saving due to unidirectional mode:  22222 B\n"
    "  Disk size saving due to data unit deduplication:  33333 B\n"
    "\n  Aggregation encode:\n"
    "      level 0: chunks:      100  hits:       60 miss:       40\n"
    "  Aggregation decode:\n"
    "      level 0: chunks:       30  hits:       20 miss:       10\n"
    "  Aggregation stack memory usage: Sender:   2048 B  Receiver:   1024 B\n"
    "  Noise filter: Chunks: 6, Bytes:    600 B\n";

inline const std::string encoding_conn_detail =
    "\nConnection details:\n"
    "  Chunks: encoded 500,  decoded 0,  anchor(forced) 450(50)\n"
    "  Total number of processed messges: 10\n" +
    search_costs + "  Ack: msg 10,  size    160 B\n" + bypass_causes +
    "  Nacks: total 0\n"
    "  R-tx: total 4 cache-not-ready 4\n"
    "  Invalidated 5 sections (5 due to converted cache) \n"
    "  Encode LZ latency:  2.000 ms per msg, zlib latency:  1.500 ms, average message size:  66666 B\n"
    "  Decode LZ latency:  0.000 ms per msg, zlib latency:  0.000 ms, average message size:      0 B\n"
    "\n  Cache write detail:\n"
    "  Section written:\n"
    "  Sigblock: cnt: 7, size:   3500 B, new size:   3400 B\n"
    "  Dataunit: cnt: 0, size:      0 B, new size:      0 B\n"
    "  Disk size saving due to data single instance:  11111 B\n"
    "  Disk size saving due to unidirectional mode:  22222 B\n"
    "  Disk size saving due to data unit deduplication:  33333 B\n"
    "\n  Aggregation encode:\n"
    "      level 0: chunks:      100  hits:       60 miss:       40\n"
    "  Aggregation decode:\n"
    "      level 0: chunks:        0  hits:        0 miss:        0\n"
    "  Aggregation stack memory usage: Sender:   2048 B  Receiver:      0 B\n"
    "  Noise filter: Chunks: 6, Bytes:    600 B\n";

inline const std::string decoding_conn_detail =
    "\nConnection details:\n"
    "  Chunks: encoded 0,  decoded 70,  anchor(forced) 0(0)\n"
    "  Total number of processed messges: 4\n" +
    no_search_costs +
    "  Ack: msg 4,  size     64 B\n"
    "  Nacks: total 3 collision 1 chunk-miss 2\n"
    "  R-tx: total 0\n"
    "  Encode LZ latency:  0.000 ms per msg, zlib latency:  0.000 ms, average message size:      0 B\n"
    "  Decode LZ latency:  1.500 ms per msg, zlib latency:  0.500 ms, average message size:    600 B\n"
    "\n  Cache write detail:\n"
    "  Section written:\n"
    "  Sigblock: cnt: 0, size:      0 B, new size:      0 B\n"
    "  Dataunit: cnt: 9, size:   4500 B, new size:   4400 B\n"
    "  Disk size saving due to data single instance:      0 B\n"
    "  Disk size saving due to unidirectional mode:      0 B\n"
    "  Disk size saving due to data unit deduplication:      0 B\n"
    "\n  Aggregation encode:\n"
    "      level 0: chunks:        0  hits:        0 miss:        0\n"
    "  Aggregation decode:\n"
    "      level 0: chunks:       30  hits:       20 miss:       10\n"
    "  Aggregation stack memory usage: Sender:      0 B  Receiver:   1024 B\n"
    "  Noise filter: Chunks: 0, Bytes:      0 B\n";

inline const std::string global_connections = "\nConnections:   Total (cumulative): 4   Active: 3\n\n";
inline const std::string global_info = cache_summary + global_connections + busy_encode + busy_decode;
inline const std::string global_detail =
    cache_summary + cache_detail + global_connections + busy_encode + busy_decode + engine_conn_detail;

inline const std::string peer_counts = "\nCurrent number of peers with active connections:           2\n"
                                       "Maximum number of peers with active connections:           3\n"
                                       "Current number of degraded peers due to writing sig-block: 4\n"
                                       "Maximum number of degraded peers due to writing sig-block: 5\n"
                                       "Current number of degraded peers due to writing data-unit: 6\n"
                                       "Maximum number of degraded peers due to writing data-unit: 7\n";

inline const std::string peer_writing_counts = "Current number of peers with writing sig-block:            8\n"
                                               "Maximum number of peers with writing sig-block:            9\n"
                                               "Current number of peers with writing data-unit:            10\n"
                                               "Maximum number of peers with writing data-unit:            11\n";

inline const std::string peers_follow = "\nActive peer details:\n";

inline const std::string first_peer = "\nPeer-No : 1                    Context: 4661 \n"
                                      "Peer-ID : 00:11:22:33:44:55\n"
                                      "KAV-peer-id : 00:11:22:33:44:55-010203040506-0a0b0c0d (19277)\n"
                                      "Hostname: branch-1.example.net\n";

inline const std::string second_peer = "\nPeer-No : 2                    Context: 0 (outdated)\n"
                                       "Peer-ID : 00:11:22:33:44:66\n"
                                       "KAV-peer-id : 00:11:22:33:44:66-000000000000-00000000 (30532)\n"
                                       "Hostname: not available\n";

inline const std::string first_peer_info = "\nCache:  Used disk: Sigblock     30 MB, Age: 45d\n"
                                           "                   Dataunit     70 MB, Age: 5d3h\n"
                                           "Peer version:  4.5 (ORV)\n"
                                           "Ack-queue size:    1234 B\n"
                                           "Buffer surge control:\n"
                                           "   Delay:   avg-size        333 B, conn:          3, flush:          2\n"
                                           "   Agg-ft:  avg-size          0 B, conn:          0, flush:          7\n"
                                           "            remote low-buff:  1, received flush:          8\n";

inline const std::string second_peer_info = "\nCache:  Used disk: Sigblock      0 MB, Age: 0s\n"
                                            "                   Dataunit      0 MB, Age: 0s\n"
                                            "Peer version:  4.3\n"
                                            "Ack-queue size:       0 B\n"
                                            "Buffer surge control:\n"
                                            "   Delay:   avg-size          0 B, conn:          0, flush:          0\n"
                                            "   Agg-ft:  avg-size          0 B, conn:          0, flush:          0\n"
                                            "            remote low-buff:  0, received flush:          0\n";

inline const std::string first_peer_detail =
    "Cache details:\n"
    "  Usable cache size:     25 MB, Usable cache age: 45d\n"
    "  Evicted cache:   3000 B\n"
    "  Remote cache created at: 03/13/2011 07:07:40\n"
    "  4.4.1 Sync-clock: remote-head 700 (safe: 650)\n"
    "  Pre 4.4.1 Cache: Sigblock 5 MB, Data unit 6 MB\n"
    "  Pre 4.4.1 Sync-clock: local-head 10, local-tail 9, remote-head 8 (safe: 8)\n"
    "  RTT: max 12 ms,   avg 6 ms (remote: 2 ms)\n"
    "  Per connection decode throughput: kav:    200 KB/s,   bypass:    500 B/s\n"
    "  Current bypass ratio: 17 %\n"
    "  Out of sync: 1, Nacks:  0,  R-tx: 4\n"
    "  Allocated write sig-block: 2\n"
    "  Allocated write data-unit: 3\n";

inline const std::string second_peer_detail =
    "Cache details:\n"
    "  Usable cache size:      0 MB, Usable cache age: 0s\n"
    "  Evicted cache:      0 B\n"
    "  4.4.1 Sync-clock: remote-head 0 (safe: 0)\n"
    "  Pre 4.4.1 Cache: Sigblock 0 MB, Data unit 0 MB\n"
    "  Pre 4.4.1 Sync-clock: local-head 0, local-tail 0, remote-head 0 (safe: 0)\n"
    "  RTT: max 0 ms,   avg 0 ms (remote: 0 ms)\n"
    "  Per connection decode throughput: kav:      0 B/s,   bypass:      0 B/s\n"
    "  Current bypass ratio: 0 %\n"
    "  Out of sync: 0, Nacks:  3,  R-tx: 0\n"
    "  Allocated write sig-block: 0\n"
    "  Allocated write data-unit: 0\n";

inline const std::string first_peer_connections = "\nConnections:   Total (cumulative): 3,  Active: 2\n"
                                                  "Concurrent Connections (Last 2 min): max 3, avg 2\n\n";
inline const std::string second_peer_connections = "\nConnections:   Total (cumulative): 1,  Active: 1\n"
                                                   "Concurrent Connections (Last 2 min): max 0, avg 0\n\n";

inline const std::string peer_detail =
    peer_counts + peer_writing_counts + peers_follow + first_peer + "IP reported from peer: 203.0.113.1\n" +
    rule_of_78 + first_peer_info + first_peer_detail + first_peer_connections + busy_encode + idle_decode +
    encoding_conn_detail + second_peer + "IP reported from peer: not available\n" + rule_of_78 + second_peer_info +
    second_peer_detail + second_peer_connections + idle_encode + busy_decode + decoding_conn_detail;

inline const std::string nack_head = "\nTime                  Peer-No  Conn-ID     Msg-No Type Reason\n" + rule_of_79;
inline const std::string first_nack = "03/13/2011 07:06:40         2        9         41 Nack Chunk missed\n";
inline const std::string second_nack = "03/13/2011 07:07:40         1       12         42 R-Tx Cache is not ready\n";
inline const std::string third_nack = "03/13/2011 07:08:40         2        9         43 Nack Checksum collision\n";

inline const std::string conn_head = "\nConn  Peer       Client-ip:port       Server-ip:port   Encode-in/   Status\n" +
                                     (" Id    No" + std::string(45, ' ') + "Decode-out   (A-Active) \n") +
                                     std::string(66, ' ') + "(C-Closed)\n";
inline const std::string conn_12_row = "12      1      192.0.2.10:50000  198.51.100.20:80      976KB/   0B  A\n";
inline const std::string conn_10_row = "10      1      192.0.2.12:50002  198.51.100.20:80        0B/   0B  C(45d)\n";
inline const std::string conn_9_row = "9       2      192.0.2.11:50001  198.51.100.21:445       0B/   3KB  A\n";

inline const std::string conn_12 =
    "\nConn-ID: 12 192.0.2.10:50000 -- 198.51.100.20:80  Peer No:  1 Status: Active\n" + rule_of_78;
inline const std::string conn_12_info =
    conn_12 + "Open at 03/13/2011 07:06:40, Still active\n" + busy_encode + idle_decode;
inline const std::string conn_9_info =
    "\nConn-ID: 9 192.0.2.11:50001 -- 198.51.100.21:445  Peer No:  2 Status: Active\n" + rule_of_78 +
    "Open at 03/13/2011 07:08:40, Still active\n" + idle_encode + busy_decode;

inline const std::string config_heading = "\nKAV configuration:\n"
                                          "  Mac-id: 00:11:22:33:44:ff\n"
                                          "  KAV-peer-id: 00:11:22:33:44:55-010203040506-0a0b0c0d\n"
                                          "  Max concurrent connections: 4000, max fan-out: 50\n"
                                          "  KAV auto bypass fifo threshold 5 MB\n";

inline const std::string config_detail = "  Replication-accelerator mode: ON\n"
                                         "  Comp-Type: KAV + LZ\n"
                                         "  WEQ working thread number: 8 \n"
                                         "  KAV cache data version: 7\n"
                                         "  Total KAV cache diskspace: 2000 MB\n"
                                         "  Total KAV cache memory: 512 MB, hash table memory: 64 MB\n"
                                         "  PLZ memory: 32 MB, PLZ buffer queue size: 16\n"
                                         "  PLZ high-watermark=90, low-watermark=70\n"
                                         "  Total WEQ buffer size: 128 MB\n"
                                         "  ACK WEQ buffer queue cap: 21 MB, ACK queue diskspace cap: 22 MB\n"
                                         "  Wait queue cap: 23 MB\n"
                                         "  Max data-unit number: 24\n"
                                         "  Sign-block read pool size: 25, data-segment read pool size: 26\n"
                                         "  Default anchor distance: 27\n"
                                         "  Default section size: 28\n"
                                         "  Default average chunk size: 256, default min chunk size: 64\n"
                                         "  Range lookup parameteres:\n"
                                         "  \tPartial lookup: OFF\n"
                                         "  \tWrite threshold: 65535, Cold pass threshold: 40000\n"
                                         "  LZ algorithm: zlib, adaptive LZ: on\n"
                                         "  LZ compression level: 6\n"
                                         "  Adaptive threshold: 10, adaptive LZ use entropy: off\n"
                                         "  PLZ enabled: No\n"
                                         "  Big message checksum: on\n"
                                         "  Buffer block_size: 4096\n";

inline const std::string bypass_summary = "KAV auto-bypass table: 2 of 1024 entries in use\n"
                                          "  Bypassed: 123555 bytes, 8 connections\n";
inline const std::string bypass_entries =
    "\n        Server-ip:port   Reason           Since                       Bytes  Connections  Next attempt\n"
    "    198.51.100.30:443    low compression  03/13/2011 07:06:40        123456            7  03/13/2011 07:16:40\n"
    "    198.51.100.31:22     configured       03/13/2011 07:07:40            99            1  never\n";

inline const std::string app_columns =
    "Overall,  ratio,  open-cnt, close-cnt, Encode-In, Decode-Out,  KAV LAN,  KAV WAN,  "
    "ratio,   LZ LAN,   LZ WAN,  ratio\n";
inline const std::string app_total_figures =
    "  1376 KB 100.00%        N/A        N/A     976 KB      400 KB   1081 KB    382 KB  "
    "64.66%    510 KB    157 KB  69.22%\n";
inline const std::string web_figures =
    "   976 KB  70.93%          2          1     976 KB        0 KB    781 KB    292 KB  "
    "62.61%    390 KB     97 KB  75.13%\n";
inline const std::string files_figures =
    "   400 KB  29.07%          1          0       0 KB      400 KB    300 KB     90 KB  "
    "70.00%    120 KB     60 KB  50.00%\n";

inline const std::string web_entry =
    "App-Slot: 0, KAV_peer_id: 00:11:22:33:44:55-010203040506-0a0b0c0d (19277), Port: 80, Open-cnt: 2, Close-cnt: 1\n"
    "Encode:\n"
    "   Overall: msg:         10, in:    976 KB, out:    244 KB, ratio:  75.00%\n"
    "       KAV: msg:          8, in:    781 KB, out:    292 KB, ratio:  62.61%\n"
    "        LZ: msg:          6, in:    390 KB, out:     97 KB, ratio:  75.13%\n"
    "Decode:\n"
    "   Overall: msg:          0, in:      0 KB, out:      0 KB, ratio:   0.00%\n"
    "       KAV: msg:          0, in:      0 KB, out:      0 KB, ratio:   0.00%\n"
    "        LZ: msg:          0, in:      0 KB, out:      0 KB, ratio:   0.00%\n"
    "\n";
inline const std::string files_entry =
    "App-Slot: 1, KAV_peer_id: 00:11:22:33:44:66-000000000000-00000000 (30532), Port: 445, Open-cnt: 1, Close-cnt: 0\n"
    "Encode:\n"
    "   Overall: msg:          0, in:      0 KB, out:      0 KB, ratio:   0.00%\n"
    "       KAV: msg:          0, in:      0 KB, out:      0 KB, ratio:   0.00%\n"
    "        LZ: msg:          0, in:      0 KB, out:      0 KB, ratio:   0.00%\n"
    "Decode:\n"
    "   Overall: msg:          4, in:    100 KB, out:    400 KB, ratio:  75.00%\n"
    "       KAV: msg:          3, in:     90 KB, out:    300 KB, ratio:  70.00%\n"
    "        LZ: msg:          2, in:     60 KB, out:    120 KB, ratio:  50.00%\n"
    "\n";
inline const std::string app_totals = "Total:\n"
                                      "Encode:\n"
                                      "   Overall: msg:         10, in:    976 KB, out:    244 KB, ratio:  75.00%\n"
                                      "       KAV: msg:          8, in:    781 KB, out:    292 KB, ratio:  62.61%\n"
                                      "        LZ: msg:          6, in:    390 KB, out:     97 KB, ratio:  75.13%\n"
                                      "Decode:\n"
                                      "   Overall: msg:          4, in:    100 KB, out:    400 KB, ratio:  75.00%\n"
                                      "       KAV: msg:          3, in:     90 KB, out:    300 KB, ratio:  70.00%\n"
                                      "        LZ: msg:          2, in:     60 KB, out:    120 KB, ratio:  50.00%\n"
                                      "\n";
inline const std::string app_table = "Top Application Summary:\n\n Port,   " + app_columns + "Total  " +
                                     app_total_figures + "   80  " + web_figures + "  445  " + files_figures + "\n";
