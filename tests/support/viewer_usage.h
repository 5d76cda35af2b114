// The usage text of the viewer.
#pragma once

#include <string>

inline const std::string usage = "Usage:\n"
                                 "/sw/vantero/bin/exec_show_stats_kav [tech-support]\n"
                                 "        [global-info | global-detail | nack]\n"
                                 "        [peer [no x| mac-id x| ip x| ctx-id x| nack | detail] ]\n"
                                 "        [conn [id x|peer-no x|client-ip x|client-port x\n"
                                 "              |server-ip x|server-port x|last|active|detail|nack]]\n"
                                 "        [save-file output-filename]\n"
                                 "        [read-file input-filename]\n"
                                 "        [top-app [top x | detail | from-file <input-filename>\n"
                                 "              |peer <kav-peer-id-hash | kav-peer-id-string>]\n"
                                 "        [kav-bypass]\n"
                                 "        [config]\n";
