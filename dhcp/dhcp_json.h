// The JSON requests of the web front end, served on "/var/run/dhcp.jsr".
//
// Twenty-one named requests read and change the server settings, pools,
// static and port bindings, the relay's state and per-interface servers, and
// page through the lease table. Changing requests go through the same setters
// as the CLI commands, called without a vty (their messages go nowhere; only
// their results count), and the configuration is saved after each of them.
//
// Reply forms: nothing (a changing request that succeeded), "{result: N}"
// (one that failed; kept so: not valid JSON, the front end expects exactly
// this), or {"data":[...]} for a reading request.
#pragma once

#include <cstddef>

struct cJSON;
struct thread_master;

constexpr const char *DHCP_JSON_PATH = "/var/run/dhcp.jsr";

// Size of the one response buffer: the largest reply any request can make
// (a page of every lease the table may hold, every pool, every static
// binding); computed in dhcp_json.cpp from the modules' limits.
extern const std::size_t DHCP_JSON_RESPONSE_SIZE;

// Member readers of the requests (case-insensitive names, as cJSON's
// cJSON_GetObjectItem): the integer of a number member, 0 when the member
// is missing or not a number; the text of a string member, nullptr when it
// is missing or not a string.
int cJSON_GetObjectItemInt(const cJSON *object, const char *name);
const char *cJSON_GetObjectItemString(const cJSON *object, const char *name);

// Starts the request server on DHCP_JSON_PATH and registers the requests.
void dhcp_json_init(thread_master *master);
// Registers the requests with the dispatcher only (tests, fuzzing).
void dhcp_json_register();

// Connection callback: parse, dispatch, reply. Returns 0.
int dhcp_json_request(int fd, const char *text, std::size_t len);

// Parses `text`, dispatches it and returns the reply (tests, fuzzing): the
// same path as dhcp_json_request() without the connection.
std::size_t dhcp_json_handle_text(const char *text, std::size_t len, const char **reply);
