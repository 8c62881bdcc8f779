/*
 * moorglass.h: the platform library of the device, as the common utility library sees it.
 *
 * The device ships its own libmoorglass.so. This header declares the part of it that
 * libcommon_utilities.so calls, with C linkage, so that the same library code links against the
 * device's platform and against the host stand-in in platform/host/.
 *
 * Conventions: strings are UTF-8 and NUL-terminated; a function that hands back a `char*`
 * documents who frees it; "0 is success" unless said otherwise.
 */
#ifndef MOORGLASS_H
#define MOORGLASS_H

#include <dirent.h>
#include <stddef.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------------------------ */
/* Logging                                                                                     */
/* ------------------------------------------------------------------------------------------ */

/* Levels: 1 error, 2 warning, 3 notable progress, 4 state changes and information, 5 trace. */
enum { QV_LOG_ERROR = 1, QV_LOG_WARNING = 2, QV_LOG_NOTICE = 3, QV_LOG_INFO = 4, QV_LOG_TRACE = 5 };

/* Identifier of the current process; every log format begins with "[pid:%d]" fed from here. */
extern int g_process_pid;

/* `file` is the source unit path, `line` the line in it, `function` the caller's full
 * signature; the rest is printf-style. */
void qv_print_log2(int level, const char* file, int line, const char* function, const char* format,
                   ...) __attribute__((format(printf, 5, 6)));
void qv_print_log2_with_module(int level, const char* module, const char* file, int line,
                               const char* function, const char* format, ...)
    __attribute__((format(printf, 6, 7)));

/* ------------------------------------------------------------------------------------------ */
/* Configuration files                                                                         */
/* ------------------------------------------------------------------------------------------ */

/* One node of a hash chain: key text, value text, next node. */
typedef struct ihash_item_s {
    char* key;
    char* value;
    struct ihash_item_s* next;
} ihash_item;

/* A hash table: the bucket count in the first word, the bucket array in the fifth. */
typedef struct ihash_s {
    int size;   /* number of buckets */
    long count; /* number of nodes */
    long reserved1;
    long reserved2;
    ihash_item** items; /* `size` buckets, each a chain of nodes or NULL */
} ihash;

/* An open configuration file. The three tables are readable by anyone who walks an `ihash`;
 * everything else is the platform's own. */
typedef struct iconfig_s {
    void* priv;     /* platform-private state */
    ihash* values;  /* plain entries, as last loaded or saved */
    ihash* secrets; /* secret entries, in clear text */
    ihash* changes; /* plain entries written since the last load or save */
} iconfig;

/* Opens the file at `path` (`mode` is 0). A missing or unreadable file gives an empty store that
 * a save creates; NULL only for a NULL or empty path. */
iconfig* OpenConfig(const char* path, int mode);
/* Saves, then closes. */
void CloseConfig(iconfig* cfg);
/* Closes without saving. */
void CloseConfigNoSave(iconfig* cfg);
/* Writes the file; 0 on success, -1 on failure. */
int SaveConfig(iconfig* cfg);
/* Reloads the file; the platform may replace `*cfg`. Unsaved changes of this handle are kept. */
void RefreshConfig(iconfig** cfg);

/* The returned strings stay valid until the next write, refresh or close of the handle. */
const char* ReadString(iconfig* cfg, const char* key, const char* default_value);
const char* ReadSecret(iconfig* cfg, const char* key, const char* default_value);
int ReadInt(iconfig* cfg, const char* key, int default_value);
void WriteString(iconfig* cfg, const char* key, const char* value);
void WriteSecret(iconfig* cfg, const char* key, const char* value);
void WriteInt(iconfig* cfg, const char* key, int value);
void DeleteString(iconfig* cfg, const char* key);

/* The global settings of the running application ("/mnt/ext1/system/config/global.cfg"), or
 * NULL. Owned by the platform: never close it. */
iconfig* GetGlobalConfig(void);

/* ------------------------------------------------------------------------------------------ */
/* Portable file and text helpers                                                              */
/* ------------------------------------------------------------------------------------------ */

/* Makes the parent directories of `path` (not `path` itself); 0 on success. */
int mg_buildpath(const char* path);
int mg_access(const char* path, int mode);
int mg_unlink(const char* path);
int mg_mkdir(const char* path, mode_t mode);
DIR* mg_opendir(const char* path);
struct dirent* mg_readdir(DIR* dir);
int mg_closedir(DIR* dir);
/* Case-insensitive comparisons over Unicode case folding; `n` counts bytes. */
int mg_strcasecmp(const char* a, const char* b);
int mg_strncasecmp(const char* a, const char* b, size_t n);
/* Copies a file, creating or replacing the target; 1 is success, 0 failure. */
int copy_file(const char* from, const char* to);
/* Converts `source` from `encoding` (a code page number such as "1251", or any name the system
 * knows, such as "KOI8-R") to UTF-8 in `destination`, always terminated within `size` bytes.
 * Returns the length written, or -1 when the conversion is unknown or impossible. */
int convert_to_utf(const char* source, char* destination, int size, const char* encoding);
/* Full Unicode case mapping of UTF-8 text. The result is allocated with malloc and freed by the
 * caller; NULL on failure (invalid UTF-8, no memory). */
char* utf_tolower_ext(const char* text);
char* utf_toupper_ext(const char* text);

/* ------------------------------------------------------------------------------------------ */
/* System channel                                                                              */
/* ------------------------------------------------------------------------------------------ */

/* Sends command `cmd` with argument `arg` to the device shell; 0 when delivered. */
int mg_ipc_cmd(int cmd, int arg);
/* A request with a reply: `buffer` holds `input_length` bytes of input and receives the reply,
 * at most `capacity` bytes. 260 enciphers a text with the device's key, 261 deciphers it; an
 * empty text stays empty. A text whose cipher text would not fit comes back empty, and text that
 * isn't this device's cipher text comes back unchanged, both with a failure. 0 on success. */
int mg_ipc_request(int cmd, int arg, void* buffer, int input_length, int capacity);

/* The status indicator of the shell: 0 idle, 2 a background service is downloading, 3 and 5 a
 * service reported an error (3 for the error the services call 5, 5 for any other). 0 when the
 * shell took it. */
int mg_set_tarvey_status(int status);

/* ------------------------------------------------------------------------------------------ */
/* State block                                                                                 */
/* ------------------------------------------------------------------------------------------ */

/* What the platform knows of the running application's settings, kept current by the platform.
 * Applications and the library only read it. */
typedef struct mgstate_s {
    /* The interface language as a locale name ("en", "de", "ru", "pt_BR"), taken from the
     * global configuration's "language"; NULL while the platform has none. */
    const char* language;
} mgstate_s;

/* The state block of this process; set before any code of the application runs. */
extern mgstate_s* mgstate;

/* ------------------------------------------------------------------------------------------ */
/* SQLite                                                                                      */
/* ------------------------------------------------------------------------------------------ */

/* The platform's SQLite offers every connection the SQL function
 *     icu_load_collation(locale, name)
 * which defines on that connection the collation `name` ordering text by the rules of `locale`,
 * as "COLLATE <name>" in a statement then uses it. It yields NULL on success and fails the
 * statement when the locale can't be used or `name` is defined on the connection already. Where
 * the platform's SQLite lacks it, the call fails as an unknown function. */

#ifdef __cplusplus
}
#endif

/* ------------------------------------------------------------------------------------------ */
/* Network service                                                                             */
/* ------------------------------------------------------------------------------------------ */

#ifdef __cplusplus
extern "C" {
#endif

/* States of the network link, as GetNetState reports them. */
enum { NET_STATE_OFF = 0, NET_STATE_CONNECTING = 1, NET_STATE_CONNECTED = 2 };

/* Bits of QueryNetwork: any bit of this mask is set while a connection is up. The bits below
 * and above it describe the network manager and the interfaces, and are the platform's own. */
#define NET_QUERY_CONNECTED_MASK 0x0F00

/* A bit mask of the network state; see NET_QUERY_CONNECTED_MASK. Cheap enough to ask before
 * every request. */
int QueryNetwork(void);
/* The state of the network link: NET_STATE_OFF, NET_STATE_CONNECTING or NET_STATE_CONNECTED. */
int GetNetState(void);

/* The proxy the user configured for the current network, in the form libcurl takes as
 * CURLOPT_PROXY ("http://host:port"), or NULL when there is none. The caller releases it with
 * clean_proxy_object. */
char* get_proxy(void);
/* Releases what get_proxy gave and sets `*proxy` to NULL; a NULL `*proxy` is left alone. */
void clean_proxy_object(char** proxy);

/* ------------------------------------------------------------------------------------------ */
/* Display                                                                                     */
/* ------------------------------------------------------------------------------------------ */

/* Size of the screen in pixels, in the current orientation. */
int ScreenWidth(void);
int ScreenHeight(void);

#ifdef __cplusplus
}
#endif

/* ------------------------------------------------------------------------------------------ */
/* Network service: bringing the link up                                                       */
/* ------------------------------------------------------------------------------------------ */

#ifdef __cplusplus
extern "C" {
#endif

/* Connects to the network named `network_name` (NULL: the network the device would choose
 * itself, the last one used or the best one in reach) and blocks until the link is up or the
 * attempt has failed. `flags` 0 connects quietly, without the platform's progress dialog.
 * 0 when connected (GetNetState then reports NET_STATE_CONNECTED), negative when no connection
 * could be made. Callers that only need "some network" pass (NULL, 0) and judge the outcome by
 * what they do next. */
int NetConnect2(const char* network_name, int flags);

#ifdef __cplusplus
}
#endif

/* ------------------------------------------------------------------------------------------ */
/* Translations of the user interface                                                          */
/* ------------------------------------------------------------------------------------------ */

#ifdef __cplusplus
extern "C" {
#endif

/* The text of `key` ("@SDcard") in the interface language (global.cfg's "language"), else in
 * English, else `key` itself. The result stays valid while the process runs; never freed. */
const char* GetLangText(const char* key);

#ifdef __cplusplus
}
#endif

/* ------------------------------------------------------------------------------------------ */
/* Network service: stored networks and the current connection                                 */
/* ------------------------------------------------------------------------------------------ */

#ifdef __cplusplus
extern "C" {
#endif

enum { NET_OK = 0 };

/* One access point of a scan, exchanged with the platform in exactly this form: 72 bytes,
 * 32-bit integers in the machine's (little-endian) order. */
typedef struct apinfo_s {
    char essid[36];      /* NUL-terminated; written with a 36-byte bounded print */
    int mode;            /* as the configuration key "mode" */
    int reserved40;      /* the platform's own */
    int security;        /* as the configuration key "security" */
    int order_value_1;   /* what one sort order of the network list orders by */
    int order_value_0;   /* what the other orders by; 1 in records not built from a scan */
    int extra_value;     /* carried to the short record of lists */
    char reserved60[12]; /* the platform's own, carried along */
} apinfo_s;

/* The current connection, as NetInfo reports it: a flag, then the network's name behind it. */
typedef struct net_info_s {
    int connected; /* non-zero while the link is up */
    char name[256];
} net_info_s;

/* The width of an address field of GetNetInfo and GetNetDNS: dotted IPv4 text, NUL-padded. */
#define NET_ADDRESS_FIELD 18

/* Writes every stored network to the configuration file `path` (replaced), in slots "wifi.0.",
 * "wifi.1.", ...: essid, hidden, key, mode, security, wepmode, eaptype, username, usercert,
 * password (secret), idle, domain, network.ipconfig (0 automatic, 1 static), network.ip,
 * network.mask, network.gateway, network.dns1..., proxy (0 none, 1 manual), proxy.host,
 * proxy.port, proxy.username, proxy.password. NET_OK, or negative when it can't be written. */
int GetNetList(const char* path);
/* Stores the networks of the configuration file `path` (every "wifi.N." slot, by their essid:
 * a stored network of the same name is replaced) and connects to the last of them. When the file
 * says "key_and_password_encrypted", keys and passwords enciphered by request 260 are deciphered
 * first (text that isn't cipher text is taken as it stands). NET_OK; negative when the file holds
 * no network or no connection could be made (the networks stay stored). */
int NetAdd(const char* path);
/* The current connection, in a record of the calling thread that the next call overwrites. */
net_info_s* NetInfo(void);
/* Address and mask of interface `ifname` while connected: a block of two NET_ADDRESS_FIELD
 * fields, allocated with malloc and freed by the caller; NULL when there is none. */
char* GetNetInfo(const char* ifname);
/* The default gateway of `ifname` while connected, allocated; NULL when there is none. */
char* GetNetGateway(const char* ifname);
/* The name servers while connected: an int count, then count NET_ADDRESS_FIELD fields; one
 * allocated block, freed by the caller. NULL when there are none. */
char* GetNetDNS(void);

#ifdef __cplusplus
}
#endif

/* ------------------------------------------------------------------------------------------ */
/* Events, timers and tasks                                                                    */
/* ------------------------------------------------------------------------------------------ */

#ifdef __cplusplus
extern "C" {
#endif

struct ibitmap_s;

/* An application's event handler: event `type` with its two parameters. The result is the
 * handler's own; SendEvent hands it back when it calls the handler directly. */
typedef int (*mg_event_handler)(int type, int par1, int par2);
/* Timer callbacks: without and with the context given when the timer was armed. */
typedef void (*mg_timer_proc)(void);
typedef void (*mg_timer_proc_ex)(void* context);
/* A replacement for usleep(3): sleeps `microseconds`, its result is the replacement's own. */
typedef int (*mg_usleep_func)(unsigned int microseconds);

/* Every application process has one event loop. It runs on one thread, the loop's thread: the
 * thread that runs it (the application's main thread). Queued events and timers are delivered
 * there only, between handlers, or inside one that runs the loop itself (ProcessEventLoop). */

/* The process's event handler, NULL before the application installed one. */
mg_event_handler GetEventHandler(void);
/* Sends an event to `handler` of this process. On the loop's thread the handler is called at
 * once and its result returned; from any other thread the event is queued, delivered on the
 * loop's thread in the order sent, and the result is 0. -1 for a NULL handler. */
int SendEvent(mg_event_handler handler, int type, int par1, int par2);
/* Sends an event to the event handler of another application: `task` is its task id (see
 * GetCurrentTask). Events from one sender arrive in the order sent. 0 when the event was handed
 * to the task's loop, -1 when there is no such task or it has no loop (errno tells). */
int SendEventTo(int task, int type, int par1, int par2);
/* One pass of the loop, without waiting: due timers, then the events that wait. Called by code
 * that keeps the application responsive while it waits for something (a nested loop). */
void ProcessEventLoop(void);

/* Timers of the loop fire once, on the loop's thread, `ms` milliseconds from the call (0: at
 * the next pass); a callback that wants a period arms its timer again. Timers due together
 * fire in the order of their due times. A hard timer fires on time even while the application
 * runs the loop from inside a handler; a weak one waits until the loop is idle (no event waiting,
 * no handler running), so it may fire late. */
/* Arms the timer of `proc`; arming it again replaces the pending one. */
void SetHardTimer(const char* name, mg_timer_proc proc, int ms);
/* Arms the timer of (`proc`, `context`), replacing the pending one of the same pair or of the
 * same non-empty `name`. */
void SetHardTimerEx(const char* name, mg_timer_proc_ex proc, void* context, int ms);
void SetWeakTimerEx(const char* name, mg_timer_proc_ex proc, void* context, int ms);
/* Disarms the timer of (`proc`, `context`); nothing happens if it isn't armed. */
void ClearTimerEx(mg_timer_proc_ex proc, void* context);
/* 1 while the timer of (`proc`, `context`) is armed (not yet fired nor cleared), else 0. */
int QueryTimerEx(mg_timer_proc_ex proc, void* context);

/* Installs the function through which the platform's own calls sleep (NULL: plain usleep), so
 * that an application can keep its own work going while the platform waits. */
void set_usleep_func(mg_usleep_func func);

/* Tasks are the running applications. A task id is positive; -1 means none. */
/* Starts the program at `path` as a new task: `argv` is its argument list, program path first,
 * NULL-terminated; `appname` is the name FindTaskByAppName knows it by, `name` the title the
 * shell shows; `icon` may be NULL; `flags` are the shell's and don't change how it runs. The
 * new task's id, or -1 when it could not start. */
int NewTask(const char* path, char** argv, const char* appname, const char* name,
            struct ibitmap_s* icon, unsigned int flags);
/* The id of a running task known by `name`, which may be its application name or the path of
 * its program; -1 when none runs. */
int FindTaskByAppName(const char* name);
/* The task id of the calling application. */
int GetCurrentTask(void);
/* Ends task `task`: asks it to end and waits for it; `subtask` -1 means the whole task; a
 * non-zero `force` kills it if it doesn't end within a few seconds. 0 when it has ended, -1 when
 * there is no such task or it still runs. */
int CloseTask(int task, int subtask, int force);
/* Opens the registered application at `path` with `argc` arguments (without the program path):
 * starts it as a task, or, when it runs already, brings it forward and leaves it running. The
 * task id, or -1. */
int OpenBook2(const char* path, int argc, char** argv, int flags);

#ifdef __cplusplus
}
#endif

/* ------------------------------------------------------------------------------------------ */
/* Network service: Wi-Fi control                                                             */
/* ------------------------------------------------------------------------------------------ */

#ifdef __cplusplus
extern "C" {
#endif

/* Statuses of the Wi-Fi calls below (and of NetAdd and NetConnect2): NET_OK, or one of these. */
enum {
    NET_ERR_FAILED = -1,    /* no such stored network, or the service can't do it */
    NET_ERR_NOT_FOUND = -2, /* the network is not in reach */
    NET_ERR_AUTH = -3,      /* the network refused the key */
    NET_ERR_TIMEOUT = -4,   /* no answer in time */
    NET_ERR_RADIO_OFF = -5  /* the radio or the network manager is off */
};

/* Security of a network, as the configuration key "security" and apinfo_s carry it. */
enum { NET_SEC_OPEN = 0, NET_SEC_WEP = 1, NET_SEC_WPA = 2, NET_SEC_WPA2 = 3, NET_SEC_EAP = 4 };

/* What a scan sees: an int32 count, then that many apinfo_s records, strongest first as the
 * radio heard them (a name may come twice). order_value_0 is the signal quality (0..100),
 * order_value_1 the signal level in dBm, extra_value the channel. Allocated with malloc, freed
 * by the caller; NULL while the radio or the network manager is off. `flags` is 0. */
void* GetWiFiScanResults(int flags);

/* The calls below block until the service is done, which may take seconds. */
/* Connects to the stored network `essid`: NET_OK once the link is up, else a NET_ERR_ status
 * (the link is then down). */
int NetSelect_by_ssid(const char* essid);
/* Forgets the stored network `essid` (and drops the link if it was the connected one): NET_OK,
 * or NET_ERR_FAILED when no network of that name is stored. */
int NetDelete_by_ssid(const char* essid);
/* Drops the link; NET_OK. */
int NetDisconnect(void);
/* Starts (non-zero) or stops the network manager, which scans and connects; stopping it drops
 * the link. NET_OK. */
int NetMgr(int on);
/* 1 while the network manager runs, 0 when it is stopped, -1 when the service can't tell. */
int NetMgrStatus(void);
/* Puts off the timed switch-off of the network manager: NET_OK, or NET_ERR_RADIO_OFF when it
 * doesn't run. */
int NetMgrPing(void);
/* The radio's power: 1 or more switches it on, 0 off (dropping the link), -1 resets it (off,
 * as after a start); below -1 only asks. NET_OK after a change; for a question 1 (on) or 0. */
int WiFiPower(int value);

/* Called when a connection that NetConnectAsync started has ended, with its status, on a thread
 * of the platform. Its result is not used. */
typedef int (*net_connect_done)(int status);
/* Starts connecting to the network the device would choose (as NetConnect2(NULL, flags)) and
 * returns at once: NET_OK when started. `done` (may be NULL) gets the outcome. */
int NetConnectAsync(net_connect_done done, int flags);

/* The WPA pre-shared key of `passphrase` on the network `essid`: PBKDF2-HMAC-SHA1 over the name,
 * 4096 rounds, 32 bytes, as 64 lower-case hexadecimal digits. Allocated with malloc, freed by the
 * caller; NULL when the passphrase is not 8 to 63 characters. `flags` is 0. */
char* wpa_passphrase(const char* essid, const char* passphrase, int flags);

#ifdef __cplusplus
}
#endif

/* ------------------------------------------------------------------------------------------ */
/* Bitmaps and the screen                                                                      */
/* ------------------------------------------------------------------------------------------ */

#ifdef __cplusplus
extern "C" {
#endif

/* A bitmap of the platform: one block from malloc, this header followed by the pixel rows, freed
 * with free(). Pixels are grey levels, 0 black to the largest value white; a byte holds 8 / depth
 * pixels, the leftmost in its high bits. Every bitmap the platform hands out belongs to the
 * caller. */
typedef struct ibitmap_s {
    unsigned short width;
    unsigned short height;
    unsigned short depth;    /* bits per pixel: 1, 2, 4 or 8 */
    unsigned short scanline; /* bytes per row */
    unsigned char data[];
} ibitmap;

/* Decoders. Every one gives a bitmap of depth 8 (colour becomes grey, transparency is laid over
 * white), or NULL when the file can't be read or isn't what its decoder reads. */
/* A PNG file; a non-zero `dither` reduces the picture to the panel's 16 grey levels with an
 * ordered dither, as photos are best shown. */
ibitmap* LoadPNG(const char* path, int dither);
/* A JPEG or TIFF file, scaled to `width` x `height` (-1 for either keeps the file's; with a
 * non-zero `proportional` the picture fits inside the box with its proportions kept).
 * `brightness` and `contrast` are percentages, 100 leaving the picture as it is: contrast
 * stretches the levels away from the middle grey, brightness then scales them. */
ibitmap* LoadJPEG(const char* path, int width, int height, int brightness, int contrast,
                  int proportional);
ibitmap* LoadTIFF(const char* path, int width, int height, int brightness, int contrast,
                  int proportional);
/* A Windows bitmap file: 1, 4, 8, 24 or 32 bits per pixel, uncompressed or with 4- and 8-bit
 * run lengths (32 bits also with the usual bit-field masks). */
ibitmap* LoadBitmap(const char* path);

/* Flags of the stretching loaders, for the whole process. */
enum { LOAD_IMAGE_NO_ENLARGE = 1 /* a picture smaller than the box keeps its size */ };
/* Sets the flags; the previous ones are returned. */
int SetLoadImageFlags(int flags);
/* A PNG file scaled to `width` x `height` (with `proportional`, fitted inside that box). */
ibitmap* LoadPNGStretch(const char* path, int width, int height, int dither, int proportional);

/* Writers: 1 on success, 0 on failure. Both write 8-bit grey (a BMP with a grey palette),
 * whatever the bitmap's depth; the file is replaced. */
int SavePNG(const char* path, const ibitmap* bitmap);
int SaveBitmap(const char* path, const ibitmap* bitmap);

/* A new bitmap of the screen's depth (8), white; NULL for a size below 1 or above 65535. */
ibitmap* NewBitmap(int width, int height);
/* A copy of `bitmap`; NULL for NULL. */
ibitmap* CopyBitmap(const ibitmap* bitmap);
/* A copy of a depth-4 bitmap at depth 8, each level n becoming n * 17; NULL for any other
 * depth. */
ibitmap* CopyBitmapDepth4To8(const ibitmap* bitmap);
/* The part (x, y, width, height) of `bitmap` scaled to `new_width` x `new_height`, at depth 8;
 * NULL when the part lies outside the bitmap or a size is below 1. */
ibitmap* BitmapStretchCopy(const ibitmap* bitmap, int x, int y, int width, int height,
                           int new_width, int new_height);

/* An image of the current theme by name ("qr_frame"), a depth-4 bitmap the caller owns, or
 * `default_bitmap` when the theme has no such image. */
ibitmap* GetKeyResource(const char* name, ibitmap* default_bitmap);

/* Opens the screen, a white frame of ScreenWidth() x ScreenHeight() pixels at depth 8. Opening
 * an open screen does nothing. */
void OpenScreen(void);
/* A copy of the part (x, y, width, height) of the screen, clipped to it; NULL when the screen
 * isn't open or nothing of the part lies on it. */
ibitmap* BitmapFromScreen(int x, int y, int width, int height);

#ifdef __cplusplus
}
#endif

/* ------------------------------------------------------------------------------------------ */
/* The shell's mailbox, the scanner's parameters, display updates, theme, keyboard            */
/* ------------------------------------------------------------------------------------------ */

#include <stdint.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The shared control block of the device: one block that the shell and every application map.
 * Only the request mailbox at its fixed offsets concerns applications; the rest is the shell's.
 *
 * The mailbox: `uiquery` names the request (0 free, MG_UIQUERY_*), `uistatus` its progress
 * (MG_UISTATUS_PENDING once the body is written, MG_UISTATUS_SHOWN while the shell shows it, any
 * other value the answer), `uibody` the request: int32 fields in the machine's order, then
 * NUL-terminated strings, packed without gaps. The fields are written by several processes; read
 * and write them with atomic operations. */
enum { MG_UIQUERY_FREE = 0, MG_UIQUERY_MESSAGE = 1, MG_UIQUERY_DIALOG = 2, MG_UIQUERY_OPENBOOK = 9 };
enum { MG_UISTATUS_PENDING = 1, MG_UISTATUS_SHOWN = 2 };
/* Answers of the shell: a dialog gives the button taken, a book request whether it opened. A
 * dialog closed without a button gives MG_UIANSWER_NONE. */
enum {
    MG_UIANSWER_NONE = 0,
    MG_UIANSWER_BUTTON1 = 3,
    MG_UIANSWER_BUTTON2 = 4,
    MG_UIANSWER_OPENED = 5,
    MG_UIANSWER_FAILED = 6
};

#define MG_UIQUERY_OFFSET 0x11A4
#define MG_UIBODY_SIZE 4096

typedef struct mgmpc_s {
    unsigned char shell_private[MG_UIQUERY_OFFSET];
    int32_t uiquery;  /* offset 0x11A4 */
    int32_t uistatus; /* offset 0x11A8 */
    unsigned char uibody[MG_UIBODY_SIZE]; /* offset 0x11AC */
} mgmpc_s;

/* The block of this device, mapped before the application's code runs; NULL where there is no
 * shell. */
extern mgmpc_s* mgmpc;

/* Packs `count` strings into one block for another process: an int32 count, then the strings
 * with their terminators. `*buffer` is allocated with malloc (the caller frees it) and `*size`
 * its length in bytes. 0, or -1 for a NULL list entry or no memory. */
int PackParameters(int count, char** list, char** buffer, int* size);

/* Display updates. The screen's contents go to the panel only by an update: a full one redraws
 * every pixel (and clears ghosting), a partial one only the rectangle. The HQ forms take longer
 * and show greys better. */
void FullUpdate(void);
void FullUpdateHQ(void);
void PartialUpdate(int x, int y, int w, int h);
void PartialUpdateHQ(int x, int y, int w, int h);
/* Height of the status panel at the bottom of the screen, 0 when the application hides it. */
int PanelHeight(void);

/* Values of the device's theme; `default_value` when the theme has no such key. GetThemeString's
 * result lives as long as the process. */
int GetThemeInt(const char* name, int default_value);
const char* GetThemeString(const char* name, const char* default_value);

/* The date of `t` (local time) as the interface language writes it. A buffer of the calling
 * thread that the next call overwrites. */
const char* DateStr(time_t t);

/* The cover of the book at `path`, read from the book itself and fitted in `width` x `height`
 * (-1 keeps the picture's size): a bitmap the caller frees, or NULL when the book has none the
 * platform can read. FictionBook covers are read here; other formats need the scanner. */
struct ibitmap_s* GetBookCover(const char* path, int width, int height);

/* The on-screen keyboard. OpenKeyboard shows it with `label` (two C strings one behind the other:
 * the title, then the text of the confirm key), `buffer` of `size` bytes holding the starting text
 * (NULL and 0 for none), the platform's `flags`. When the input ends, `handler` is called on the
 * event loop's thread with the text typed (in `buffer` when there is one), or NULL when it was
 * cancelled; the keyboard is then closed. */
typedef int (*mg_keyboard_handler)(char* text);
/* Flags of OpenKeyboard, combined with |. */
enum { KBD_NORMAL = 0, KBD_PASSWORD = 0x1, KBD_NUMERIC = 0x2, KBD_URL = 0x4, KBD_MULTILINE = 0x8 };
typedef struct irect_s {
    int x, y, w, h;
} irect;
void OpenKeyboard(const char* label, char* buffer, int size, int flags,
                  mg_keyboard_handler handler);
void CloseKeyboard(void);
int IsKeyboardOpened(void);
/* Where the keyboard covers the screen while open; all zero while closed. */
irect GetKeyboardRect(void);

#ifdef __cplusplus
}
#endif

#endif /* MOORGLASS_H */
