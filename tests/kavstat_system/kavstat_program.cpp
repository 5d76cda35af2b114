#include "kavstat_program.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>

program_result run_kavstat(const std::vector<std::string>& arguments, const run_surroundings& surroundings)
{
    return child_program(built_program("kavstat"), arguments, surroundings).finish();
}

int free_port()
{
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    const bool b_bound = bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                         getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size) == 0;
    close(socket);
    if (!b_bound) {
        throw std::runtime_error("no port to be had");
    }
    return ntohs(address.sin_port);
}

kavstat_server::kavstat_server(const run_surroundings& surroundings, const std::vector<std::string>& options)
    : m_program(
          built_program("kavstat"),
          [&] {
              std::vector<std::string> arguments = {"serve", "--listen", "127.0.0.1:0"};
              arguments.insert(arguments.end(), options.begin(), options.end());
              return arguments;
          }(),
          surroundings)
{
    const std::string line = m_program.read_line().value_or("");
    const std::size_t port = line.find("://127.0.0.1:");
    if (!line.starts_with("serving http") || port == std::string::npos) {
        throw std::runtime_error("kavstat serve says: " + line);
    }
    m_port = std::stoi(line.substr(line.rfind(':') + 1));
}

program_result kavstat_server::stop()
{
    m_program.send_signal(SIGTERM);
    return m_program.finish();
}
