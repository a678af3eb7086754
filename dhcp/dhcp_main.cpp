// dhcpd entry point: brings the daemon up in its fixed order and hands
// control to the event loop for good.
#include <getopt.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_json.h"
#include "dhcp/dhcp_zebra.h"
#include "dhcp/dhcpr.h"
#include "dhcp/dhcpr_stats.h"
#include "dhcp/dhcpr_vty.h"
#include "dhcp/dhcps_stats.h"
#include "dhcp/dhcps_vty.h"
#include "dhcp/dhcps.h"
#include "dhcp/dhcps_leases.h"
#include "lib/command.h"
#include "lib/if.h"
#include "lib/log.h"
#include "lib/sigevent.h"
#include "lib/thread.h"
#include "lib/vty.h"
#include "lib/vty_proto.h"
#include "platform/host.h"
#include "platform/jserver.h"
#include "platform/uclient.h"
#include "platform/uif.h"

thread_master *master = nullptr;
uclient *dhcp_uclient = nullptr;

namespace {

constexpr int DHCP_LOG_PROTOCOL = 21;  // our entry in the suite's daemon list
constexpr int DHCP_HAL_CLIENT = 13;
constexpr const char *DHCP_PID_FILE = "/var/run/dhcp.pid";
constexpr std::uint32_t UCLIENT_BUS_ADDR = 0x7f000001;
constexpr std::uint16_t UCLIENT_BUS_PORT = 30000;
constexpr std::uint16_t UCLIENT_LISTEN_PORT = 30008;

void sighup() {
    zlog_info("SIGHUP received");
}
void sigusr1() {
    zlog_rotate(zlog_default);
}
void sigint() {
    zlog_notice("Terminating on signal");
    // The request socket goes with the daemon: a client finds no socket
    // rather than one nobody answers.
    jserver_close();
    std::exit(0);
}

zsignal_t dhcp_signals[] = {
    {SIGHUP, sighup, 0},
    {SIGUSR1, sigusr1, 0},
    {SIGINT, sigint, 0},
    {SIGTERM, sigint, 0},
};

const option longopts[] = {{"daemon", no_argument, nullptr, 'd'}, {nullptr, 0, nullptr, 0}};

int dhcp_uclient_read(thread *t) {
    auto *client = static_cast<uclient *>(THREAD_ARG(t));
    int fd = THREAD_FD(t);
    if (uclient_handle_async(client, fd) < 0) {
        close(fd);
        return -1;
    }
    thread_add_read(master, dhcp_uclient_read, client, fd);
    return 0;
}

int dhcp_uclient_serv(thread *t) {
    auto *client = static_cast<uclient *>(THREAD_ARG(t));
    int lfd = THREAD_FD(t);
    thread_add_read(master, dhcp_uclient_serv, client, lfd);
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    int fd = accept4(lfd, reinterpret_cast<sockaddr *>(&peer), &len, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
        // The read task armed above stays registered on the closed socket,
        // as it always has; no new bus peers are accepted from here on.
        zlog_err("accept async failed");
        close(lfd);
        return -1;
    }
    thread_add_read(master, dhcp_uclient_read, client, fd);
    return 0;
}

int dhcp_uclient_callback(void *arg) {
    return uclient_new_if(arg);
}

// A second dhcpd beside a running one would unlink the running daemon's
// CLI socket before failing on the management-bus port, leaving it
// unreachable. So, unlike the rest of the start-up, the pid file's lock is
// looked at first: held by a live daemon, this process says so and leaves
// before it touches any socket, file or port of the running one.
void exit_if_running() {
    const pid_t holder = pid_file_holder(DHCP_PID_FILE);
    if (holder > 0 && holder != getpid()) {
        zlog_err("dhcpd is already running with pid %d, exiting", static_cast<int>(holder));
        std::exit(1);
    }
}

int dhcp_if_new_hook(interface *) {
    return 0;
}
int dhcp_if_delete_hook(interface *) {
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    umask(027);
    if (geteuid() != 0) {
        errno = EPERM;
        std::perror("dhcpd");
        std::exit(1);
    }
    openzlog("dhcpd", DHCP_LOG_PROTOCOL, LOG_CONS | LOG_NDELAY | LOG_PID, LOG_DAEMON);

    bool daemon_mode = false;
    int opt = 0;
    while ((opt = getopt_long(argc, argv, "d", longopts, nullptr)) != -1) {
        if (opt == 'd') {
            daemon_mode = true;
        }
    }

    exit_if_running();

    master = thread_master_create();
    hal_init(DHCP_HAL_CLIENT);
    signal_init(master, 4, dhcp_signals);
    cmd_init(1);
    vty_init(master);
    memory_init();
    vrf_init();
    dhcp_zebra_init(master);
    uif_init();
    uvlan_init();
    if_add_hook(IF_NEW_HOOK, dhcp_if_new_hook);
    if_add_hook(IF_DELETE_HOOK, dhcp_if_delete_hook);
    dhcps_init(master);
    dhcpr_init(master);
    dhcp_debug_init();
    dhcps_vty_init();
    dhcpr_vty_init();
    dhcps_stats_vty_init();
    dhcpr_stats_vty_init();

    if (daemon_mode) {
        if (daemon(0, 0) < 0) {
            zlog_err("VRRP daemon failed: %s", std::strerror(errno));
            std::exit(1);
        }
        // Standard output is /dev/null from here on.
        zlog_set_level(zlog_default, ZLOG_DEST_STDOUT, ZLOG_DISABLED);
    }
    zlog_mark_defaults(zlog_default);

    if (pid_output(DHCP_PID_FILE) < 0) {
        exit_if_running();  // another one started since the first look
    }
    vty_serv_sock(nullptr, 0, VTY_SOCKET_PATH);

    dhcp_uclient = uclient_connect(UCLIENT_BUS_ADDR, UCLIENT_BUS_PORT, UCLIENT_LISTEN_PORT);
    if (dhcp_uclient == nullptr) {
        zlog_err("Failed to create uclient");
        std::exit(1);
    }
    dhcp_uclient->callback = dhcp_uclient_callback;
    thread_add_read(master, dhcp_uclient_read, dhcp_uclient, dhcp_uclient->sock);
    thread_add_read(master, dhcp_uclient_serv, dhcp_uclient, dhcp_uclient->serv_sock);
    dhcps_write_timer_start(master);
    dhcp_json_init(master);

    host_init(0x48000, 0);
    zlog_notice("DHCP %s starting", DHCPD_VERSION);
    // From here a burst of lines is written once, after the callback that
    // made it, instead of one write per line.
    zlog_set_buffered(zlog_default, true);
    thread_set_after_hook(master, [] { zlog_flush(zlog_default); });
    thread_main(master);
    jserver_close();
    return 0;
}
