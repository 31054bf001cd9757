// Application-monitor client library of the card platform.
//
// The application monitor restarts a registered service whose heartbeats stop:
// when no heartbeat arrives within the registration's time-out, it runs the
// command given at registration.
#ifndef ORV_SDK_APPMON_CLIENT_H
#define ORV_SDK_APPMON_CLIENT_H

#ifdef __cplusplus
extern "C" {
#endif

struct appmon_connection;

// Handle of one connection to the monitor; owned by the library, cleared by the
// caller after appmon_client_exit.
typedef struct appmon_client {
    struct appmon_connection* conn;
} appmon_client_t;

// Connects to the monitor listening on `serverPath`. 0 on success.
int appmon_client_init(appmon_client_t* client, const char* serverPath);

// Registers the calling process: when no heartbeat arrives for `timeoutMs`
// milliseconds the monitor runs `command`. 0 on success.
int appmon_client_register(appmon_client_t* client, unsigned long timeoutMs, const char* command);

// One heartbeat. 0 on success.
int appmon_client_heartbeat(appmon_client_t* client);

// Ends the registration; `reason` is recorded by the monitor. 0 on success.
int appmon_client_deregister(appmon_client_t* client, const char* reason);

// Closes the connection and frees what init allocated.
void appmon_client_exit(appmon_client_t* client);

#ifdef __cplusplus
}
#endif

#endif  // ORV_SDK_APPMON_CLIENT_H
