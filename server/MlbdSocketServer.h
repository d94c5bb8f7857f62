/*
 * The control socket and its commands.
 *
 * One platform client tells the daemon which applications to steer and when a game or a call
 * starts and ends, over the UNIX stream socket "/dev/socket/mlbd" ($MLBD_ROOT/dev/socket/mlbd on
 * a host). It sends fixed 1032-byte records (msg_t, host byte order). One thread accepts a single
 * client for the life of the process and runs each record's command to completion, one record
 * per receive pause ("ping_interval_ms", read once). With "control_reaccept" (read once) not 0,
 * the thread accepts the next client, under the same check, once the one it serves has gone (end
 * of stream or a receive error); what earlier clients set stays.
 *
 * The door: the socket file is mode 0666, so the accepted peer's credentials are checked; only
 * root, the system user and (host build) the daemon's own user are served, anyone else is logged,
 * closed and the thread goes back to accept(). A record's text is read only within its 1024-byte
 * field, whether or not it holds a zero.
 *
 * After the steering has been torn down (IptablesManager::clean_SLM_iptables), commands that
 * would start or program something do nothing and return -1; stop commands still stop threads.
 * A running command and the teardown never overlap: each command holds
 * IptablesManager::lifecycleMutex() for its whole run.
 */
#pragma once

#include <stdint.h>
#include <sys/types.h>

class Parameters;

// The control record, sent as raw bytes in the host's byte order.
struct msg_t {
    int32_t id;          // command id, 1 to 9
    int32_t length;      // length of the text; a record with 1024 or more is ignored
    char message[1024];  // the command's argument, zero-terminated when shorter than the field
};
static_assert(sizeof(msg_t) == 1032, "the control record is 1032 bytes");

// The control socket's device path.
#define MLBD_SOCKET_PATH "/dev/socket/mlbd"

// Command ids.
enum MlbdCommandId {
    MLBD_CMD_UID_WHITELIST = 1,
    MLBD_CMD_WLAN_INTERFACE = 2,
    MLBD_CMD_DATA_INTERFACE = 3,
    MLBD_CMD_SLS_RTT = 4,
    MLBD_CMD_START_SLS = 5,
    MLBD_CMD_STOP_SLS = 6,
    MLBD_CMD_DBL_WLAN_UID_WHITELIST = 7,
    MLBD_CMD_VOIP_STATUS = 8,
    MLBD_CMD_VOIP_BSSID = 9,
};

// Creates, binds and opens up (mode 0666) the listening socket at `path` (taken as it stands,
// not mapped); the descriptor, or -1.
int createSocket(const char* path);
// Starts the server thread and stores `params` for the commands; the thread id, or -1.
int createSocketThreads(Parameters* params);
// The server thread's body.
void* socketThreadHandle(void*);
// Runs the command of one record (taken by value).
void handleMessage(msg_t msg);
// Closes the listening socket; the accepted connection and the thread live on.
void stopSocketThreads();

// One receive into `buffer` (which keeps what earlier receives left in it) that returned
// `received`: logs and dispatches the record unless nothing came or its length is 1024 or more.
void handleReceived(const msg_t& buffer, ssize_t received);
// The Parameters object the commands use (stored by createSocketThreads; null before); tests
// set their own.
void setCommandParameters(Parameters* params);
Parameters* commandParameters();

// The commands.
int setUidWhitelist(const char* text);
int setDblWlanUidWhitelist(const char* text);
int updateSlsInterfacesRtt(const char* text);
int StartSlsServer(const char* uids);
int StopSlsServer();
int setVoipStatus(const char* text);
int setVoipBssidVaule(const char* text);
