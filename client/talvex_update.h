/* The update library of a game client.
 *
 * A client links it to be updated by TalvexUpdateHelper.exe. One start of a client, from beginning to end:
 *
 *   talvex_open       which directory, whose signatures, which callbacks
 *   talvex_settle     first thing in a start: does an update have to be settled? Play, exit or repair
 *   talvex_confirm    the game runs: what could undo the last update is no longer needed
 *   talvex_check      may the downloaded manifest's release be installed here?
 *   talvex_next_file  which file has to be downloaded, and to which path
 *   talvex_stage      everything is there: prove it, and write the plan
 *   talvex_install    start the helper; the client exits
 *   talvex_close
 *
 * Plain C, so that any language can bind it: opaque handles, sizes in structs, UTF-16 strings, no exception
 * and no allocation crosses it. Strings and bytes that are passed in are copied; those passed out are written
 * into memory of the caller.
 *
 * Threads: any thread may make any call, one call at a time for each handle. A call that is made while
 * another one runs, from a callback for instance, returns TALVEX_E_IN_CALL and does nothing. Callbacks run on
 * the calling thread and must not throw.
 */
#ifndef TALVEX_UPDATE_H
#define TALVEX_UPDATE_H

#include <stddef.h>
#include <stdint.h>
#include <wchar.h>

/* Define TALVEX_UPDATE_STATIC to link the static library. The CMake targets do that by themselves. */
#if defined(TALVEX_UPDATE_STATIC)
#define TALVEX_UPDATE_API
#elif defined(TALVEX_UPDATE_BUILDS_DLL)
#define TALVEX_UPDATE_API __declspec(dllexport)
#else
#define TALVEX_UPDATE_API __declspec(dllimport)
#endif
#define TALVEX_CALL __cdecl

#ifdef __cplusplus
extern "C" {
#endif

typedef struct talvex_client talvex_client;

/* Results. The numbers never change; talvex_last_error has a sentence for each failure. Most calls may
 * fail with TALVEX_E_ARGUMENT, TALVEX_E_HANDLE, TALVEX_E_IN_CALL, TALVEX_E_ORDER, TALVEX_E_MEMORY and
 * TALVEX_E_SYSTEM; what else to expect stands at each. */
typedef int32_t talvex_result;
enum {
  TALVEX_OK = 0,
  TALVEX_DONE = 1, /* nothing (more) to do; see the function */

  /* The call was wrong; it has changed nothing. */
  TALVEX_E_ARGUMENT = 100, /* a null pointer, no keys, a struct of an unknown size, a buffer too small */
  TALVEX_E_HANDLE = 101,   /* not a handle, or one that was closed */
  TALVEX_E_IN_CALL = 102,  /* another call with this handle has not returned yet */
  TALVEX_E_ORDER = 103,    /* something else has to be called first, or the client has to exit */
  TALVEX_E_KEY = 104,      /* a trusted key is not an RSA-3072 public key, as PEM or as CNG blob */

  /* The client directory. */
  TALVEX_E_DIRECTORY = 200,       /* missing, a link, the top of a drive, or on a network share: no updates */
  TALVEX_E_ALREADY_RUNNING = 201, /* another client or a helper is at work in this directory */
  TALVEX_E_NOT_WRITABLE = 202,    /* this user may not write there: the game may run, without updates */
  TALVEX_E_UNSETTLED = 203,       /* the last update was neither confirmed nor rolled back */
  TALVEX_E_DAMAGED = 204,         /* why talvex_settle says TALVEX_START_REPAIR */

  /* The offered release. */
  TALVEX_E_UNSIGNED = 300,      /* not signed with any of the trusted keys, or damaged */
  TALVEX_E_OLDER = 301,         /* older than what is or was installed, or changed under the same number */
  TALVEX_E_FAILED_BEFORE = 302, /* was rolled back here; a newer release is needed */
  TALVEX_E_POSTPONED = 303,     /* installing it failed several times; it is tried again later */
  TALVEX_E_FILE = 304,          /* a staged file is missing or wrong; talvex_next_file lists it again */
  TALVEX_E_NO_HELPER = 305,     /* it has no TalvexUpdateHelper.exe */

  /* The machine. */
  TALVEX_E_SPACE = 400, /* not enough room on the disk to install and, if need be, to restore */
  TALVEX_E_MEMORY = 401,
  TALVEX_E_CANCELLED = 402, /* the progress callback asked for it; the call may be repeated */
  TALVEX_E_SYSTEM = 403     /* something failed in Windows; the sentence says what */
};

/* What a client does after talvex_settle. */
enum {
  TALVEX_START_GAME = 1,  /* start the game; look for updates whenever it suits */
  TALVEX_START_EXIT = 2,  /* a helper was started to restore the previous release: exit at once */
  TALVEX_START_REPAIR = 3 /* files are damaged: do not start the game; only an update can repair them */
};

/* What progress is about. */
enum {
  TALVEX_PHASE_SETTLE = 1,  /* verifying the files after an update */
  TALVEX_PHASE_COMPARE = 2, /* finding the files that have to be downloaded */
  TALVEX_PHASE_STAGE = 3    /* proving the downloaded files */
};

/* Public keys: the PEM text of one or more RSA-3072 keys ("BEGIN PUBLIC KEY"), or a CNG blob of 411 bytes. */
typedef struct talvex_key {
  const void* bytes;
  size_t size;
} talvex_key;

typedef struct talvex_options {
  uint32_t struct_size; /* sizeof(talvex_options) */
  uint32_t key_count;
  const talvex_key* keys; /* a release counts as signed when one of them has signed it */
  /* Where Talvex.exe is; null: the directory of the running program. */
  const wchar_t* client_directory;
  /* No release with a lower sequence is ever accepted: that of the release this program belongs to, or 0. */
  uint64_t lowest_sequence;

  void* context; /* passed to the callbacks, each of which may be null */
  /* A line about what the library does, for the client's own log. */
  void(TALVEX_CALL* log)(void* context, const wchar_t* line);
  /* Every MiB or so. `done` of `total` bytes, both 0 for an empty task; `done` falls back when a file has to
   * be read again. Return 0 to cancel the call that is running. */
  int32_t(TALVEX_CALL* progress)(void* context, int32_t phase, uint64_t done, uint64_t total);
  /* Called by talvex_settle after an update whose files are intact: can this release start? Return 0 to have
   * it rolled back. */
  int32_t(TALVEX_CALL* is_healthy)(void* context);
} talvex_options;

typedef struct talvex_release {
  uint32_t struct_size; /* sizeof(talvex_release), set by the caller */
  uint64_t sequence;
  wchar_t name[65];
  wchar_t digest[65]; /* SHA-256 of the manifest, lowercase hexadecimal */
} talvex_release;

/* A file to be downloaded. */
typedef struct talvex_file {
  uint32_t struct_size;     /* sizeof(talvex_file), set by the caller */
  uint64_t size;            /* bytes of the whole file */
  uint64_t present;         /* bytes that an earlier download has left at `destination`: go on after them */
  wchar_t path[221];        /* in the release, with "/" */
  wchar_t sha256[65];       /* lowercase hexadecimal */
  wchar_t destination[260]; /* write the bytes to this file; its directory exists */
} talvex_file;

/* Opens the client directory. Touches nothing in it, and takes what the helper has left for this process out
 * of its environment: open once, early. On success `*client` is a handle for talvex_close; on failure it is
 * null, and talvex_last_error(NULL, ...) has the sentence. TALVEX_E_KEY: a key cannot be used.
 * TALVEX_E_DIRECTORY: the game may run, without updates. */
TALVEX_UPDATE_API talvex_result TALVEX_CALL talvex_open(const talvex_options* options,
                                                        talvex_client** client);

/* Takes the client directory for this process, and settles an update that was installed before this start:
 * verifies its files (once, and only then), or has it rolled back. Call it first thing in every start,
 * before the game's files are used. On success `*start` is one of TALVEX_START_..., and after
 * TALVEX_START_REPAIR talvex_last_error has the reason (TALVEX_E_DAMAGED); the directory stays taken, by one
 * process only, until talvex_close or the end of the process. TALVEX_E_ALREADY_RUNNING: another process has
 * it. TALVEX_E_NOT_WRITABLE: the game may run, without updates. TALVEX_E_UNSETTLED: an update was cut off,
 * and this user may not write there to finish it. TALVEX_E_CANCELLED: the files are not verified. After a
 * failure the call may be repeated; until it succeeds, nothing works besides but talvex_arguments,
 * talvex_last_error and talvex_close: every other call returns TALVEX_E_ORDER. */
TALVEX_UPDATE_API talvex_result TALVEX_CALL talvex_settle(talvex_client* client, int32_t* start);

/* The game runs. The copies of the previous release go; from now on the update cannot be undone. A release
 * whose process ends between talvex_settle and this call without talvex_close is rolled back at the next
 * start, so make it as soon as the first frame is shown. Harmless when there is nothing to confirm. May be
 * repeated after TALVEX_E_SYSTEM, when another program holds one of the copies. */
TALVEX_UPDATE_API talvex_result TALVEX_CALL talvex_confirm(talvex_client* client);

/* The installed release. TALVEX_DONE: none can be proven, as before the first update. */
TALVEX_UPDATE_API talvex_result TALVEX_CALL talvex_installed(talvex_client* client, talvex_release* release);

/* Offers the release of a downloaded manifest.txt and manifest.sig. TALVEX_OK: it may be
 * installed. TALVEX_DONE: it is installed already (go on with talvex_next_file to repair damaged files).
 * TALVEX_E_UNSIGNED, TALVEX_E_OLDER, TALVEX_E_FAILED_BEFORE, TALVEX_E_POSTPONED, TALVEX_E_NO_HELPER: not
 * this release, or not yet. `release` may be null. */
TALVEX_UPDATE_API talvex_result TALVEX_CALL talvex_check(talvex_client* client, const void* manifest,
                                                         size_t manifest_size, const void* signature,
                                                         size_t signature_size, talvex_release* release);

/* The next file of the offered release that has to be downloaded. The first call compares the client
 * directory with the release, looks at the free space, and keeps what an earlier, cut-off download of the
 * same release has left. TALVEX_DONE: that was all. After talvex_stage the list starts over, and so it does
 * after TALVEX_DONE with what is still missing. TALVEX_E_SPACE: nothing was downloaded yet; make room and
 * repeat it. TALVEX_E_CANCELLED: it may be repeated. */
TALVEX_UPDATE_API talvex_result TALVEX_CALL talvex_next_file(talvex_client* client, talvex_file* file);

/* Proves every downloaded file and writes the plan. A wrong file is removed, one that is too short is kept
 * to go on with: TALVEX_E_FILE, and talvex_next_file lists both again. TALVEX_DONE: there is nothing to
 * install, all files are as they should be. TALVEX_E_SPACE and TALVEX_E_CANCELLED are as with
 * talvex_next_file. */
TALVEX_UPDATE_API talvex_result TALVEX_CALL talvex_stage(talvex_client* client);

/* Starts the helper. On success exit at once: the helper waits for that, installs the release and starts
 * Talvex.exe again. `arguments` is the command line that the restarted client gets from talvex_arguments;
 * null: none. TALVEX_E_UNSETTLED: the last update has to be confirmed first. */
TALVEX_UPDATE_API talvex_result TALVEX_CALL talvex_install(talvex_client* client, const wchar_t* arguments);

/* In a client that the helper has started: writes what was given to talvex_install, at most 32,767
 * characters, into `buffer` of `capacity` characters. TALVEX_DONE: there is none. TALVEX_E_ARGUMENT:
 * `capacity` is too small. */
TALVEX_UPDATE_API talvex_result TALVEX_CALL talvex_arguments(talvex_client* client, wchar_t* buffer,
                                                             size_t capacity);

/* The failure of the last call with this handle, or of the last talvex_open when `client` is null: returns
 * its code, and writes its sentence, shortened if it has to be, into `buffer` of `capacity` characters.
 * TALVEX_E_HANDLE and TALVEX_E_IN_CALL are its own: then there is no such failure to be had. */
TALVEX_UPDATE_API talvex_result TALVEX_CALL talvex_last_error(talvex_client* client, wchar_t* buffer,
                                                              size_t capacity);

/* Gives the client directory free, and the handle with it. Call it at the end of an orderly run; a release
 * that was not confirmed gets another try. Fails with TALVEX_E_HANDLE and TALVEX_E_IN_CALL alone, and then
 * does nothing. */
TALVEX_UPDATE_API talvex_result TALVEX_CALL talvex_close(talvex_client* client);

#ifdef __cplusplus
}
#endif

#endif
