/* A database in one ordinary file: records of equal size, found by a key that each begins with.
 *
 *     0               record_size         2 * record_size
 *     +-----+---------+-----+-------------+-----+- - -
 *     | key | the rest| key | the rest    | key |
 *     +-----+---------+-----+-------------+-----+- - -
 *     |<--->| key_size
 *
 * There is nothing else in the file: no header, no count, no mark of a free place. Its length
 * divided by record_size is the number of records. A new record is appended; a removed one is
 * replaced by the last one. A look-up reads from the start: meant for some thousands of records at
 * most.
 *
 * A file whose length is no multiple of record_size is damaged from the incomplete record on. What
 * stands before it can be read, edited and removed as ever.
 *
 * The descriptor `fd` that each operation takes says who opens the file:
 *
 *     0 or less   the operation: it opens the file (made empty, mode 0644, where there is none),
 *                 waits for a lock on the whole file, and closes it again. Readers share the lock,
 *                 writers have it alone.
 *     above 0     the caller, with filedb_fixed_fdopen(). Nothing is locked: several operations in
 *                 a row, or a search and what follows from it, are locked by the caller's flock().
 *                 Each operation leaves the position where it found it.
 *
 * Results of the operations, besides their own:
 *
 *      0  done, found
 *      1  no record has the key (find, edit, remove)
 *     -1  memory is out; the file does not open; a read failed (logged as "<path> read -1"); an
 *         argument is NULL; record_size is below 1, or key_size is 0 or above record_size where a
 *         key is wanted. The last two are found out before anything is opened.
 *     -2  the lock could not be taken, or a signal ended the wait for it
 *     -3  the position could not be set to the file's start or end (a pipe, say)
 *     -4  an incomplete record was read, logged as
 *             "<path> read <n> bytes struct size <record_size> possible file corrupt"
 *         or a new record was not written whole, logged as "<path> write failed". What was written
 *         of it stays at the file's end.
 *
 * Failures are logged as warnings.
 *
 * Records are read in blocks of 32 KiB, which lie on the caller's stack.
 *
 * Thread safety: nothing is shared between calls but the file. Operations that open it themselves
 * exclude each other, in all processes and threads. A descriptor has one position: an fd above 0 is
 * one thread's at a time. */
#ifndef ZTLIB_DB_FILEDB_FIXED_H
#define ZTLIB_DB_FILEDB_FIXED_H

#include <stdint.h>
#include <ztlib/decls.h>

ZT_BEGIN_DECLS

enum { FILEDB_FIXED_PATH_SIZE = 512 };

/* What a database is; it holds no open file and needs no release. Operations only read it. */
typedef struct filedb_fixed {
    char path[FILEDB_FIXED_PATH_SIZE]; /* terminated */
    int32_t record_size;               /* bytes */
    uint32_t key_type;                 /* as given to filedb_fixed_init() */
    uint32_t key_size;                 /* bytes at the start of each record, compared as they are */
} filedb_fixed;

/* Describes a database. Nothing is opened; the path is cut at 511 characters. `key_type` gives the
 * width of the key and nothing more:
 *
 *     1, 2    1 byte
 *     3, 4    2 bytes
 *     5, 6    4 bytes
 *     7, 8    8 bytes
 *     9, 18   `key_length` bytes; of the other types that argument is ignored
 *
 * Returns 0. Any other type gives -1 and logs "invalid key_type: <type>"; path, record size and
 * type are stored all the same, and key_size is 0. A null argument gives -1 and stores nothing. */
int filedb_fixed_init(filedb_fixed *db, const char *path, uint32_t record_size, uint32_t key_type,
                      uint32_t key_length);

/* Opens the file for reading and writing, and makes it where there is none (mode 0644 before the
 * umask). Takes no lock. Returns the descriptor, which is closed on exec and never one of the
 * standard streams' (0 to 2); -1 on failure, logged as "open(): <text of errno>", and for NULL. */
int filedb_fixed_fdopen(const filedb_fixed *db);

/* Closes `fd`, and with it gives up a lock that was taken through it. */
void filedb_fixed_fdclose(const filedb_fixed *db, int fd);

/* Appends `record` unless a record begins with `key`, which need not be what `record` begins with.
 * Returns 0, or -2 when the key is there already. Where the search fails the record is appended all
 * the same: in a damaged file it then stands behind the incomplete record, out of line. */
int filedb_fixed_insert(const filedb_fixed *db, int fd, const void *key, const void *record);

/* Appends `record`, whatever its key. *offset (unless NULL) is then the byte at which it stands.
 * `spare` is ignored. */
int filedb_fixed_append_offset(const filedb_fixed *db, int fd, int64_t *offset, const void *spare,
                               const void *record);

/* Replaces the first record that begins with `key` by `record`, its key included. `scratch`, of
 * record_size bytes, may be NULL; it ends up with the last whole record that was looked at, and must
 * not overlap the key.
 * Returns 0, 1, or record_size when the record was found and could not be replaced. */
int filedb_fixed_edit(const filedb_fixed *db, int fd, const void *key, const void *record,
                      void *scratch);

/* Writes `record` at byte `offset`, which need neither be the start of a record nor within the
 * file. `spare` and `scratch` are ignored, but a null `scratch` costs an allocation that can fail.
 * Returns 0, -1 when the record was not written whole, or -4 when the position could not be set. */
int filedb_fixed_edit_offset(const filedb_fixed *db, int fd, int64_t offset, const void *spare,
                             const void *record, void *scratch);

/* Removes the first record that begins with `key`: the file's last record takes its place, and the
 * file becomes one record shorter.
 * Returns 0, 1, or record_size when the record was found and could not be removed; the last record
 * may then be there twice. */
int filedb_fixed_remove(const filedb_fixed *db, int fd, const void *key);

/* Copies the first record that begins with `key` to `record`, which has room for record_size bytes
 * and must not overlap the key.
 * Returns 0 or 1. Unless it is 0, `record` has the last whole record that was looked at, or is
 * untouched where there was none. */
int filedb_fixed_find(const filedb_fixed *db, int fd, const void *key, void *record);

/* Called for one record of a walk. `record` is a copy, aligned as in an array of records, that the
 * callback may write to; it is gone when the callback returns. Any result but 0 ends the walk.
 *
 * A callback must not call an operation that writes to the same file with an `fd` of 0 or less when
 * the walk itself was called so: it would wait for the walk's own lock for ever. It may write
 * through the walk's descriptor, and the walk then goes on in the file as it has become; records
 * written in any other way may be seen as they were. */
typedef int (*filedb_fixed_list_callback)(void *context, void *record, int32_t record_size);

/* As above. `fd` is the walk's descriptor, for filedb_fixed_edit_offset() with `offset`, the byte
 * at which the record stands. Its position means nothing, and the callback leaves it as it is (as
 * all operations here do). */
typedef int (*filedb_fixed_list_offset_callback)(void *context, filedb_fixed *db, int fd,
                                                 int64_t offset, void *record,
                                                 int32_t record_size);

/* Calls `callback` for each record, in the file's order.
 * Returns 0 after the last one, or what the callback returned to end the walk. The records in front
 * of an incomplete one are visited before -4 is returned. */
int filedb_fixed_list(const filedb_fixed *db, int fd, void *context,
                      filedb_fixed_list_callback callback);
int filedb_fixed_list_offset(filedb_fixed *db, int fd, void *context,
                             filedb_fixed_list_offset_callback callback);

ZT_END_DECLS

#endif
