/* Testing for paths, making directories with all their parents, and removing whole trees.
 *
 * All messages go to standard error.
 *
 * Thread safety: nothing is shared between calls; relative paths follow the process's working
 * directory. */
#ifndef ZTLIB_UTILS_PATH_H
#define ZTLIB_UTILS_PATH_H

#include <ztlib/decls.h>

ZT_BEGIN_DECLS

enum {
    PATH_CREATE_LENGTH = 1499, /* longest path that path_create() makes, doubled slashes not counted */
    PATH_ENTRY_LENGTH = 1023   /* longest path of a directory's entry that path_remove() removes */
};

/* Returns 0 when stat() finds something at `path`, else -1; -1 for NULL. */
int file_exists(const char *path);

/* Returns 0 when stat() finds something at `path`, -1 when there is nothing (or NULL was passed), 1
 * when stat() fails for any other reason: what lies below a regular file gives 1. */
int path_exists(const char *path);

/* Makes the directory and every parent that is missing, each with mode 0775 before the umask, and
 * prints for each
 *
 *     mkdir: <path so far>
 *
 * A parent that exists is passed over, whatever it is.
 * Returns 0, or -1 when a directory cannot be made (those made before it stay), when the path is
 * longer than PATH_CREATE_LENGTH (nothing is made then), or for NULL. */
int path_create(const char *path);

/* Returns 0 when file_exists(path), else what path_create(path) returns. */
int path_notexists_create(const char *path);

/* Removes a file, or a directory with all that is in it.
 *
 * Symbolic links are followed: a link to a file is removed and its target stays, but a link to a
 * directory has that directory EMPTIED, wherever it is, and stays itself, so that the directory
 * that holds it stays too. A link back to a directory that is being removed is not entered again.
 * Never call this on a tree in which somebody else can make links.
 *
 * Returns 0, or the step that failed, after a line "<call>(<path>): <reason>":
 *     -1  stat() of the path, or its rmdir() at the end
 *     -2  unlink() of the path, which is no directory
 *     -3  opendir() of the path
 *     -4  stat() of an entry; also an entry whose path is longer than PATH_ENTRY_LENGTH, or dangles
 *     -5  unlink() of an entry
 * -4 and -5 end the work at once and leave the rest. What a subdirectory's removal returned is not
 * looked at; its rest makes the rmdir() fail. NULL gives -1 and no line. */
int path_remove(const char *path);

ZT_END_DECLS

#endif
