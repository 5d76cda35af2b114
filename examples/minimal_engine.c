/* A small engine in C that publishes statistics: one peer, and one connection whose traffic grows every second.
 *
 *   cc -std=c99 minimal_engine.c $(pkg-config --cflags --libs kav_core)
 *
 * After an installation from source into /usr/local, run `ldconfig` once as root. With another prefix, set
 * PKG_CONFIG_PATH=PREFIX/lib/pkgconfig to build it, and LD_LIBRARY_PATH=PREFIX/lib to run it.
 *
 * While it runs, try `exec_show_stats_kav global-info`, `exec_show_stats_kav conn last` and `kavstat watch`. Ctrl-C
 * ends it. Its statistics disappear with it, however it ends.
 */
#define _POSIX_C_SOURCE 200809L

#include <kav_core.h>

#include <signal.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

static volatile sig_atomic_t b_stop = 0;

static void stop(int signal)
{
    (void)signal;
    b_stop = 1;
}

int main(void)
{
    kav_writer* writer;
    kav_peer peer = {{0}, {2, 0x4b, 0x41, 0x56, 0, 1}, {0}, 0xcb007101, "branch-1", false, true}; /* 203.0.113.1 */
    kav_connection ends = {1, 0xc000020a, 0xc6336414, 40000, 80}; /* 192.0.2.10 to 198.51.100.20 */
    kav_transport transport = {0};
    int error, peer_slot, slot;

    signal(SIGINT, stop);
    signal(SIGTERM, stop);

    error = kav_writer_create(&writer, NULL, time(NULL), 0640);
    if (error != 0) {
        fprintf(stderr, "minimal_engine: %s\n", kav_error_text(error));
        return 1;
    }
    kav_writer_set_global(writer, RE_STAT_GLOBAL_ID_CACHE_STATE, KAV_CACHE_USABLE);
    peer_slot = kav_writer_add_peer(writer, 1, &peer);
    transport.compression = KAV_COMPRESSION_BOTH;
    slot = kav_writer_open_connection(writer, peer_slot, &ends, &transport, time(NULL));
    kav_writer_publish(writer); /* from now on viewers can read the statistics */

    while (!b_stop) {
        /* Each call counts for the connection, its peer and the engine. */
        kav_writer_add_connection_stat(writer, slot, RE_STAT_CONN_ID_ENCODE_NUM_MSGS, 1);
        kav_writer_add_connection_stat(writer, slot, RE_STAT_CONN_ID_ENCODE_IN_BYTES, 1000);
        kav_writer_add_connection_stat(writer, slot, RE_STAT_CONN_ID_ENCODE_OUT_BYTES, 250);
        if (!kav_writer_is_in_place(writer)) {
            kav_writer_publish_again(writer); /* the segment has been removed */
        }
        sleep(1);
    }
    kav_writer_close_connection(writer, slot, time(NULL));
    kav_writer_close(writer);
    return 0;
}
