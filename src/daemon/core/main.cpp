// kelputild: serves one management connection and one action, then exits.
#include <arpa/inet.h>
#include <netdb.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <syslog.h>

#include "core/auth.h"
#include "core/client_log.h"
#include "core/connection.h"
#include "core/dispatch.h"
#include "core/listener.h"
#include "core/process_exit.h"
#include "core/program_name.h"
#include "core/request.h"
#include "core/state.h"
#include "core/tls.h"
#include "protocol.h"

static void on_alarm(int) {
    syslog(LOG_NOTICE, "Alarm signal caught - connection timeout");
    end_process_from_signal(1);
}

static void install_signals() {
    signal(SIGHUP, SIG_IGN);
    signal(SIGQUIT, SIG_IGN);
    signal(SIGPIPE, SIG_IGN);
    signal(SIGALRM, on_alarm);
}

static uint32_t bind_address() {
    const char* text = "0.0.0.0";
    in_addr_t address = inet_addr(text);
    if (address == INADDR_NONE) {
        struct hostent* host = gethostbyname(text);
        if (host && host->h_addr_list[0]) memcpy(&address, host->h_addr_list[0], 4);
        endhostent();
    }
    if (address == INADDR_NONE) {
        printf("unable to resolve address");
        end_process(1);
    }
    return address;
}

static void accept_client() {
    for (;;) {
        socklen_t length = 16;
        client_fd = accept(listen_fd, (struct sockaddr*)&client_address, &length);
        if (client_fd >= 0) return;
        perror("accept()");
    }
}

static void authenticate_or_exit() {
    int verdict = authenticate(client_fd);
    if (verdict == 1) return;
    if (verdict == 0) {
        puts("authentication failed.");
        log_client(LOG_ALERT, "authentication failed");
        end_process(2);
    }
    log_client(LOG_ERR, "protocol error during auth (probable port scan)");
    end_process(1);
}

int main(int argc, char** argv) {
    // Lines reach the console (or the supervisor's log) as they happen.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    install_signals();
    uint32_t address = bind_address();

    char empty[] = "";
    char* name = argc > 0 && argv[0] ? argv[0] : empty;
    bool plain = strcmp(program_basename(name), "kelputild") == 0;
    openlog(plain ? "kelputild" : "kelputild/ssl", LOG_NDELAY, LOG_AUTHPRIV);
    listen_fd = open_listener(address, plain ? plain_port : tls_port);

    if (plain)
        tls_active = 0;
    else
        tls_context_new();
    if (listen_fd == 0) {
        puts("Invalid socket");
        end_process(1);
    }
    accept_client();

    if (!plain && tls_server_handshake(client_fd) != 0) {
        log_client(LOG_ERR, "ssl negotiation failed");
        end_process(1);
    }
    authenticate_or_exit();
    if (!read_action_request(client_fd)) {
        log_client(LOG_ERR, "protocol error");
        end_process(1);
    }
    tls_active = 0;  // the rest of the connection is plain bytes
    dispatch_action(client_fd);
}
