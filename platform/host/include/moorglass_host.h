/*
 * moorglass_host.h: controls of the host stand-in of the platform, for tests and tools only.
 * Nothing here exists on the device; the library itself never includes this header.
 *
 * State that other processes must see (the card, the profile, the recorded system commands) is
 * kept in files under the host state directory, "/var/run/moorglass-host" unless the environment
 * variable QV_HOST_STATE_DIR names another. Inside the device sandbox that directory is private
 * to the sandbox and starts empty.
 */
#ifndef MOORGLASS_HOST_H
#define MOORGLASS_HOST_H

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Log capture (this process) ---------------------------------------------------------- */

/* Receives every log line of this process, whatever the level filter of the standard error
 * stream. `module` is NULL for qv_print_log2. May be called from any thread. */
typedef void (*qvhost_log_sink)(void* user, int level, const char* module, const char* file,
                                int line, const char* function, const char* message);
/* Installs a sink (NULL removes it); one at a time. */
void qvhost_set_log_sink(qvhost_log_sink sink, void* user);
/* The level up to which lines reach the standard error stream (0 silences it). Taken from the
 * environment variable QV_LOG_LEVEL at load, default 2 (errors and warnings). */
void qvhost_set_log_level(int level);
int qvhost_log_level(void);

/* ---- System channel (all processes) ------------------------------------------------------- */

/* Every mg_ipc_cmd and mg_ipc_request call is appended to "ipc.log" in the state directory, one
 * line each: "cmd <cmd> <arg> <pid>" or "request <cmd> <arg> <pid>". */
/* Path of that log (a static buffer). */
const char* qvhost_ipc_log_path(void);
/* Counts recorded calls of command `cmd` (requests included); 0 when nothing was recorded. */
int qvhost_ipc_count(int cmd);
/* Forgets the recorded calls. */
void qvhost_ipc_clear(void);

/* ---- Device profile (all processes; libboardprofile.so) ----------------------------------- */

/* Puts the card in (non-zero) or takes it out. */
void qvhost_set_card_inserted(int inserted);
/* Sets the serial number the card reports (hexadecimal text); NULL or "" makes it unreadable. */
void qvhost_set_card_serial(const char* serial_hex);
void qvhost_set_partner(int partner_id);
void qvhost_set_native_auth(int supported);
void qvhost_set_device_flag(int flag, int value);
void qvhost_set_software_version(const char* version);
void qvhost_set_device_model(const char* model);
/* Path of the profile file (a static buffer): key=value lines that override the host defaults. */
const char* qvhost_profile_path(void);

/* ---- State block and SQLite (this process) ----------------------------------------------- */

/* The state block `mgstate` takes the interface language from the global configuration's
 * "language" ("en" when absent) when the platform loads. Re-reads it, after a test or a tool
 * changed the file. */
void qvhost_reload_state(void);
/* Sets the language text of the state block directly; NULL leaves the block without one. */
void qvhost_set_state_language(const char* language);

/* Whether connections opened from now on get the SQL function icu_load_collation (connections
 * already open keep what they have). On at load unless the environment variable
 * QV_HOST_NO_ICU_COLLATION is set to a non-empty value other than "0": the host can then play a
 * device whose SQLite was built without ICU, and leaves SQLite unconfigured until the first open
 * (or until this is switched on). */
void qvhost_set_icu_collation_enabled(int enabled);
int qvhost_icu_collation_enabled(void);

#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Network service and display (all processes; libmoorglass.so) ------------------------ */

/* The network state and the proxy live in "network.state" in the state directory, a small block
 * that every process maps shared, so that a test taking the network down in one process takes it
 * down for all at once. A fresh device is connected, with no proxy. */
/* Sets the link state that GetNetState reports (NET_STATE_OFF, _CONNECTING, _CONNECTED);
 * QueryNetwork reports a connection only in NET_STATE_CONNECTED. */
void qvhost_set_net_state(int state);
/* Shorthand: connected (non-zero) or off. */
void qvhost_set_network_up(int up);
/* The proxy get_proxy hands out ("http://host:port", at most 1023 bytes); NULL or "" for none. */
void qvhost_set_proxy(const char* proxy);
/* Path of that file (a static buffer). */
const char* qvhost_network_path(void);

/* The screen size ScreenWidth and ScreenHeight report; host default 1072 x 1448. Kept in
 * "display.cfg" in the state directory. */
void qvhost_set_screen_size(int width, int height);

#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Bringing the network up (all processes; libmoorglass.so) ----------------------------- */

/* Whether NetConnect2 finds a network (non-zero, the default) or fails and leaves the link state
 * as it is. Kept in "network.state" with the link state. */
void qvhost_set_network_reachable(int reachable);
/* How many times any process of the device has called NetConnect2. */
int qvhost_net_connect_count(void);

#ifdef __cplusplus
}
#endif

/* ---- Event loop and tasks (this process; libmoorglass.so) --------------------------------- */

#include "moorglass.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A host program is the application: it installs its handler and runs the loop on its main
 * thread, as the device's shell does for a real application. */
/* Installs the process's event handler (NULL removes it) and makes the calling thread the loop's
 * thread. */
void qvhost_set_event_handler(mg_event_handler handler);
/* Installs `handler` and runs the loop on the calling thread, waiting for events and timers,
 * until qvhost_stop_event_loop. 0, or -1 when another thread is running the loop. */
int qvhost_run_event_loop(mg_event_handler handler);
/* Makes qvhost_run_event_loop return after the pass under way (at once if it is waiting); a
 * stop asked for while the loop isn't running ends its next run at once. Safe from any thread
 * and from a signal handler. */
void qvhost_stop_event_loop(void);
/* Sleeps as the platform's own waiting calls do: through the function of set_usleep_func. */
int qvhost_platform_usleep(unsigned int microseconds);
/* Where the tasks of the device are recorded: one file per task, named by its id, holding its
 * application name and program path on two lines (a static buffer). */
const char* qvhost_tasks_dir(void);

#ifdef __cplusplus
}
#endif

/* ---- Status indicator (all processes; libmoorglass.so) ------------------------------------ */

#ifdef __cplusplus
extern "C" {
#endif

/* mg_set_tarvey_status keeps the indicator in "indicator" of the state directory, replaced
 * whole at each call. The value last set by any process of the device; -1 before the first. */
int qvhost_tarvey_status(void);
/* Path of that file (a static buffer). */
const char* qvhost_tarvey_status_path(void);

#ifdef __cplusplus
}
#endif

/* ---- Wi-Fi service (all processes; libmoorglass.so) --------------------------------------- */

#ifdef __cplusplus
extern "C" {
#endif

/* The host plays a device in the air: the access points around it are a list that tests and
 * tools set ("wifi_air.txt" in the state directory). Until a list is set the device is in reach
 * of every network it stores, each accepting its stored key, and with no stored network
 * NetConnect2(NULL, 0) brings up the host's own link. With a list, scans show its access points
 * (a hidden one only when stored: the device asks for it by name), and connecting checks the
 * stored key against the access point's passphrase (the passphrase itself or its derived key;
 * WEP and enterprise networks compare the key or the password as they stand). */
typedef struct qvhost_wifi_ap_s {
    const char* essid;      /* 1 to 32 bytes, no tab or line break */
    int security;           /* NET_SEC_* */
    const char* passphrase; /* what the access point accepts; "" or NULL for an open one */
    int quality;            /* 0..100, the scan's order_value_0 */
    int level;              /* dBm, the scan's order_value_1 */
    int channel;            /* the scan's extra_value */
    int hidden;             /* non-zero: does not broadcast its name */
} qvhost_wifi_ap;

/* Sets the air to `count` access points (0: none in reach, `aps` may then be NULL); a negative
 * `count` goes back to the default air. 0, or -1 (nothing changed) for a name that can't be used. */
int qvhost_wifi_set_air(const qvhost_wifi_ap* aps, int count);
/* The access points of the air into `out` (up to `capacity`; the texts stay valid until the next
 * call from this thread): their number, or -1 for the default air. */
int qvhost_wifi_air(qvhost_wifi_ap* out, int capacity);

/* Outcomes the service can be told to give its connects, whatever the air says. */
enum {
    QVHOST_WIFI_NATURAL = 0, /* as the air and the keys decide */
    QVHOST_WIFI_OK = 1,
    QVHOST_WIFI_NO_NETWORK = 2, /* NET_ERR_NOT_FOUND */
    QVHOST_WIFI_WRONG_KEY = 3,  /* NET_ERR_AUTH */
    QVHOST_WIFI_TIMEOUT = 4     /* NET_ERR_TIMEOUT */
};
/* How long the blocking calls (NetAdd, NetSelect_by_ssid, NetConnect2, NetMgr) take, and the
 * outcome of connects; kept in "network.state", for every process, until changed. */
void qvhost_wifi_set_behaviour(int delay_ms, int outcome);
int qvhost_wifi_delay(void);
int qvhost_wifi_outcome(void);

#ifdef __cplusplus
}
#endif

/* ---- Images and the screen (this process; libmoorglass.so) ------------------------------ */

#ifdef __cplusplus
extern "C" {
#endif

/* Theme images are PNG files in this directory of the device image, "<name>.png"; GetKeyResource
 * hands them out at depth 4. */
#define QVHOST_THEME_IMAGE_DIR "/zelgrot/share/theme/images"

/* The screen's frame after OpenScreen (depth 8, scanline = width), NULL before. Host code that
 * draws or updates the display writes into it; it lives until the process ends. */
ibitmap* qvhost_framebuffer(void);
/* Writes the screen's frame as a PNG file, so that a person can see what was drawn; 1 on
 * success, 0 when the screen isn't open or the file can't be written. */
int qvhost_save_screen(const char* path);
/* How many times this process called GetKeyResource, and how many files the decoders opened
 * (LoadPNG, LoadJPEG, LoadTIFF, LoadBitmap and LoadPNGStretch, failures included). */
int qvhost_key_resource_calls(void);
int qvhost_image_decodes(void);

#ifdef __cplusplus
}
#endif

/* ---- The shell's mailbox, display updates, keyboard (libmoorglass.so) ---------------------- */

#ifdef __cplusplus
extern "C" {
#endif

/* The shared control block `mgmpc` is the file "mgmpc" of the state directory, mapped shared by
 * every process of the device when the platform loads (unless QV_HOST_NO_SHELL_BLOCK is set to a
 * non-empty value other than "0": a device without a shell, `mgmpc` NULL). The host shell
 * (the program host_shell, or `qvtool shell`) serves its mailbox. Path, a static buffer: */
const char* qvhost_mgmpc_path(void);

/* The other side of PackParameters: the strings of a block as a NULL-terminated list allocated
 * with malloc, freed with qvhost_free_parameters. The count, or -1 for a damaged block. */
int qvhost_unpack_parameters(const void* block, int size, char*** list);
void qvhost_free_parameters(char** list);

/* Every display update is appended to "display.log" of the state directory, one line each:
 * "full", "full-hq", "partial X Y W H", "partial-hq X Y W H". Path, a static buffer: */
const char* qvhost_display_log_path(void);
/* Each update also copies its part of the screen's frame (qvhost_framebuffer) to what the panel
 * of this process shows; this writes that picture as a PNG file: 1, or 0 before the first update
 * of an open screen. */
int qvhost_save_panel(const char* path);
/* The height PanelHeight reports (0 at start), kept in "display.cfg". */
void qvhost_set_panel_height(int height);

/* Whether the keyboard of task `task` is open now. */
int qvhost_keyboard_is_open(int task);
/* Types `text` into the open keyboard of task `task` and confirms it (NULL cancels); the task's
 * handler gets it on its event loop. 0, or -1 when that keyboard isn't open. */
int qvhost_keyboard_type(int task, const char* text);

#ifdef __cplusplus
}
#endif

#endif /* MOORGLASS_HOST_H */
