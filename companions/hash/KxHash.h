/*
 * KxHash.h: the fingerprint of a program file, for rules that are bound to an application. C and C++.
 *
 * KxPfwRul.dll loads KxHash.dll from the directory in InstallPath (docs/settings.md) for every hash that it needs and
 * releases it again; KxHash.dll itself stays in the process from the first hash that it remembers on. The hash is SHA-1 over the bytes of the file, what sha1sum prints.
 *
 * What it is worth: it tells that a program was replaced, updated or damaged, so that its rule stops matching. It is no
 * proof against somebody who may choose the program: two files of the same SHA-1 can be made, at a cost that has been
 * affordable since 2017. (To a given file nobody can make another one yet.) Whoever may write the program file may do
 * worse anyway; where programs come from strangers, let signatures decide, not this hash. The width of 20 bytes is
 * that of the field in the rule record.
 */
#ifndef KXHASH_H
#define KXHASH_H

#include <stdint.h>
#include <wchar.h>

#ifdef __cplusplus
#define KXHASH_FUNCTION extern "C"
#else
#define KXHASH_FUNCTION
#endif

/*
 * Hashes a file as it is now: the bytes that it had when it was opened, below 4 GiB, so that the call comes to an end
 * whatever the file's owner does. It reads with the rights of the process, also on a thread that impersonates a client.
 * A local file that nobody has open for writing, and that has stayed as it is for three seconds, is read once a minute: its
 * identity, size and times of writing and change tell whether it is the same. For a moment nobody can open it for writing
 * then.
 *   path    NUL-terminated, absolute or relative to the current directory; an absolute one may be longer than 260
 *           characters. Neither SYSTEM nor any other name has a special meaning here.
 *   hash20  receives 20 bytes on success and is left alone otherwise
 * 0, or the Windows error number of what failed, among them
 *     2, 3  no such file, no such directory
 *     5     no access, or a directory; or the thread impersonates an anonymous client
 *     8     out of memory
 *     32    somebody has the file open without sharing it
 *     65    the file lies on the network, or its bytes do not lie on this machine; the registry value HashNetworkFiles
 *           lets it in (docs/settings.md)
 *     87    path or hash20 is null
 *     222   not a file but a volume, a disk, a pipe, a console or another device
 *     223   4 GiB or more, which no program has
 *     802   somebody holds an oplock on the file and does not let go within a tenth of a second
 *     1237  the file was written to meanwhile
 * Any thread, no lock. Others may read, write, rename and delete the file during the call.
 */
KXHASH_FUNCTION int32_t kxCfwGetHashValue(const wchar_t* path, uint8_t* hash20);

#endif
