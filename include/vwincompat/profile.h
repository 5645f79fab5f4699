/**
 * @file
 * Profile (INI) files: text files of sections and entries.
 *
 * A line is a section header, an entry, or something that readers skip and edits keep:
 *
 *     [Net]                   ; the name is what stands between the brackets, blanks included
 *     address = 10.0.0.1      # blanks around key and value do not count
 *     "my key" = ' kept '     ; quoted; \" and \' do not end the quotation and stay as written
 *     url=a#b                 ; a comment starts with ; or # behind a blank, or at the start of a line
 *     verbose                 ; a key without '=' has the empty value
 *
 * Names are compared without regard to ASCII letter case; of several sections with one name, or several
 * entries with one key in a section, the first counts. The lines before the first header are a section
 * without a name: a null section means that one. An unclosed quotation, text behind a quotation or a header,
 * an empty key and an empty name make a line malformed: it is skipped. A NUL byte ends a line for the
 * readers.
 *
 * Limits: a section name, a key or a value has at most 1023 bytes; a line with a longer one is malformed. Of
 * a line of more than 4095 bytes every 4095 are read as a line of their own.
 *
 * Nothing is cached: each operation reads the file anew. File names are used as they are, without conversion
 * of Windows paths. No operation is a cancellation point; they block as long as the file system does.
 *
 * An edit writes a complete copy, named as the file with "copy" appended, and renames it over the file:
 * whoever reads meanwhile, or finds the file after a crash, sees the old file or the new one. So during an
 * edit the file system holds two files, and a symbolic link or one of several hard links is replaced by a
 * plain file. When an edit fails the file is as it was. A line that an edit does not concern stays as it is,
 * byte for byte. The rename is not checked: when it fails, the operation still returns TRUE, the file is the
 * old one, and the new content is in the copy.
 *
 * Edits of one file come one at a time, in all threads and processes: an edit holds a lock (flock(2)) on the
 * copy, and another one waits until it has ended, then reads the file. On a file system without locks two
 * edits at the same time can lose one another's change; callers take turns there. A copy that a killed
 * process left behind is removed by the next edit. Readers take no lock.
 *
 * Example: read a number with a default, and change it.
 *
 * @code{.c}
 * BOOL doubleTimeout(LPCSTR file) {
 *     char text[12];
 *     UINT timeout_ms = vllGetPrivateProfileInt("Net", "timeout", 500, file);
 *     vllultoa(timeout_ms * 2, text, 10);
 *     return vllWritePrivateProfileString("Net", "timeout", text, file);
 * }
 * @endcode
 */
#ifndef VWINCOMPAT_PROFILE_H
#define VWINCOMPAT_PROFILE_H

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Reads one value as a number.
 *
 * @param section        the section's name. Null is the section without a name.
 * @param key            the entry's key; not null.
 * @param default_value  the result when there is no such file, section or key, or the value has 50 bytes or
 *                       more.
 * @param file           the file's name; not null.
 * @return  the value, read as atoi(3) does: leading blanks, a sign, decimal digits; what follows does not
 *          count, and text without a number is 0. A number beyond 32 bits gives the nearest one within. The
 *          last error is 0 when a value was read. Otherwise the result is the default.
 * @error EINVAL  the file or the key is null.
 * @error ENOENT  there is no such file, section or key.
 * @error ENOBUFS  the value has 50 bytes or more.
 * @error others  as open(2) and read(2) give them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API UINT vllGetPrivateProfileInt(LPCSTR section, LPCSTR key, int32_t default_value, LPCSTR file);

/**
 * Reads one value, or lists sections or keys.
 *
 * With section and key: the value, cut to size - 1 bytes; the default when file, section or key are missing.
 * With a section only: its keys, as vllReadAllValues(). With a key only: all sections, as
 * vllReadAllSections().
 *
 * @param section        the section's name. Null lists the sections.
 * @param key            the entry's key. Null lists the keys of the section.
 * @param default_value  what is stored when there is nothing to read, cut to size - 1 bytes; it must not lie
 *                       in the buffer. Null stands for "".
 * @param buffer         receives the result with its terminator. May be null when the size is 0.
 * @param size           the buffer's size in bytes, at least 2 for a list. 0 with a section and a key:
 *                       nothing is stored, and the result is 0.
 * @param file           the file's name; not null.
 * @return  the number of bytes stored, without the terminator (for a list: without the last one). The last
 *          error is 0 when a value was read whole; a value that was cut gives size - 1, a list that was cut
 *          size - 2, and a list of a file that cannot be read (DWORD)-1 with the buffer untouched.
 * @error EINVAL  section and key are both null: the result is (DWORD)-1. The file is null: the default is
 *                stored, or for a list the result is (DWORD)-1. The buffer is null although the size is not
 *                0, or for a list has less than 2 bytes: the result is 0.
 * @error ENOBUFS  the value or the list was cut.
 * @error ENOENT  there is no such file, section or key; or the section whose keys are listed has none. The
 *                default is stored, but for a list of a file that does not exist.
 * @error others  as open(2) and read(2) give them. The default is stored, but for a list.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API DWORD vllGetPrivateProfileString(LPCSTR section, LPCSTR key, LPCSTR default_value, LPSTR buffer,
                                         DWORD size, LPCSTR file);

/**
 * Reads all entries of a section as strings "key=value", each with its terminator, and one more terminator at
 * the end. Quotes around keys and values are removed, and an entry without '=' gets one.
 *
 * @param section  the section's name. Null is the section without a name.
 * @param buffer   receives the list, and zero bytes behind it; not null. Untouched when the file cannot be
 *                 opened.
 * @param size     the buffer's size in bytes, at least 2.
 * @param file     the file's name; not null.
 * @return  the number of bytes stored without the last terminator, size - 2 when the list was cut, and 0
 *          after any other failure. For an empty section it is 0 as well, with the last error unchanged, as
 *          after every success.
 * @error EINVAL  the file or the buffer is null, or the buffer has less than 2 bytes.
 * @error ENOENT  there is no such file or section.
 * @error ENOBUFS  the list was cut.
 * @error others  as open(2) and read(2) give them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API DWORD vllGetPrivateProfileSection(LPCSTR section, LPSTR buffer, DWORD size, LPCSTR file);

/**
 * Sets or deletes an entry, or deletes a section. Creates the file and the section when they do not exist,
 * for deletions too.
 *
 * With a key and a value: as vllAddConfigValue(). With a key and no value: as vllDeleteConfigValue(). Without
 * a key: as vllDeleteConfigSection(); so three null pointers delete all lines before the first section, where
 * Win32 would flush its cache. A file or section that was created stays when the edit that follows fails.
 *
 * @param section  the section's name. Null is the section without a name.
 * @param key      the entry's key. Null deletes the section.
 * @param value    the value. Null deletes the entry.
 * @param file     the file's name, of at most 255 bytes; not null.
 * @return  TRUE, or FALSE.
 * @error EINVAL  the file is null, or vllAddConfigSection() or vllAddConfigValue() refuses the arguments;
 *                nothing is created or changed then.
 * @error ENAMETOOLONG  the file name has more than 255 bytes.
 * @error ENOENT  there is no such entry to be deleted, or a directory of the file's name does not exist.
 * @error EISDIR  the file, or what has the copy's name, is a directory.
 * @error ENOSPC  the file system is full.
 * @error others  as open(2), read(2), write(2) and fsync(2) give them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. Waits while another edit of the file goes on.
 */
VLL_API BOOL vllWritePrivateProfileString(LPCSTR section, LPCSTR key, LPCSTR value, LPCSTR file);

/**
 * Reads one value.
 *
 * @param file     the file's name; not null.
 * @param section  the section's name. Null is the section without a name.
 * @param key      the entry's key; not null.
 * @param buffer   receives the value with its terminator. May be null when the size is 0.
 * @param size     in: the buffer's size in bytes; out: the value's length without its terminator. Not null.
 * @return  TRUE with a last error of 0, or FALSE.
 * @error EINVAL  the file, the key or the size is null, or the buffer is null although its size is not 0.
 * @error ENOENT  there is no such file or section: buffer and size are untouched. Or there is no such key:
 *                the buffer holds "", and the size is 0.
 * @error ENOBUFS  the value is too long: the buffer holds its first size - 1 bytes and a terminator (nothing
 *                when its size is 0), and the size is what is needed, the length plus 1.
 * @error others  as open(2) and read(2) give them: buffer and size are untouched.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API BOOL vllReadConfigValue(LPCSTR file, LPCSTR section, LPCSTR key, LPSTR buffer, DWORD *size);

/**
 * Lists the names of all sections, in the order of the file, repeated ones too: strings with their
 * terminators, and one more terminator at the end.
 *
 * @param default_value  what is stored instead when the file has no section, cut to size - 1 bytes; it must
 *                       not lie in the buffer. Null stands for "".
 * @param buffer         receives the list, and zero bytes behind it; not null. Untouched when the file cannot
 *                       be opened.
 * @param size           the buffer's size in bytes, at least 2.
 * @param file           the file's name; not null.
 * @return  the number of bytes stored without the last terminator, or the length of the default when that was
 *          stored, with the last error unchanged; size - 2 when the list was cut; (DWORD)-1 when the file
 *          cannot be read; 0 for a buffer that is refused.
 * @error EINVAL  the file is null: the result is (DWORD)-1. The buffer is null or has less than 2 bytes: the
 *                result is 0.
 * @error ENOENT  there is no such file.
 * @error ENOBUFS  the list was cut.
 * @error others  as open(2) and read(2) give them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API DWORD vllReadAllSections(LPCSTR default_value, LPSTR buffer, DWORD size, LPCSTR file);

/**
 * Lists the keys of a section, as vllReadAllSections() lists sections.
 *
 * @param section        the section's name. Null is the section without a name.
 * @param default_value  what is stored instead when there is no such section or no entry in it, cut to size -
 *                       1 bytes; it must not lie in the buffer. Null stands for "".
 * @param buffer         receives the list, and zero bytes behind it; not null. Untouched when the file cannot
 *                       be opened.
 * @param size           the buffer's size in bytes, at least 2.
 * @param file           the file's name; not null.
 * @return  the number of bytes stored without the last terminator, with the last error unchanged, or the
 *          length of the default when that was stored, with ENOENT; size - 2 when the list was cut; (DWORD)-1
 *          when the file cannot be read; 0 for a buffer that is refused.
 * @error EINVAL  the file is null: the result is (DWORD)-1. The buffer is null or has less than 2 bytes: the
 *                result is 0.
 * @error ENOENT  there is no such file, no such section, or no entry in it.
 * @error ENOBUFS  the list was cut.
 * @error others  as open(2) and read(2) give them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API DWORD vllReadAllValues(LPCSTR section, LPCSTR default_value, LPSTR buffer, DWORD size, LPCSTR file);

/**
 * Sets an entry. It becomes the first line of its section, and all entries with its key disappear.
 *
 * The value is written as it is: blanks at its ends, a blank followed by ';' or '#', and quotes read back
 * differently, and a newline in it makes further lines. Do not pass on unchecked text. The key is written
 * between double quotes when it has a blank or tab in it.
 *
 * The new file has the default permissions of the process, not those of the old one. The change is on the
 * disk when the operation returns: it calls sync(2), which may take long.
 *
 * @param file     the file's name, of at most 255 bytes; not null.
 * @param section  the section's name. Null is the section without a name.
 * @param key      the entry's key, of at most 1023 bytes; not null.
 * @param value    the value, of at most 1023 bytes; not null.
 * @return  TRUE, or FALSE.
 * @error EINVAL  the file, the key or the value is null, the value is too long, or the key could not be read
 *                back, for instance because it is empty or too long, has a newline in it, has '=' but no
 *                blank, or starts with a quote or as a comment or a header does.
 * @error ENAMETOOLONG  the file name has more than 255 bytes.
 * @error ENOENT  there is no such file or section.
 * @error EISDIR  the file, or what has the copy's name, is a directory.
 * @error ENOSPC  the file system is full.
 * @error others  as open(2), read(2), write(2) and fsync(2) give them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. Waits while another edit of the file goes on.
 */
VLL_API BOOL vllAddConfigValue(LPCSTR file, LPCSTR section, LPCSTR key, LPCSTR value);

/**
 * Deletes all entries with a key from a section. The file is replaced as by vllAddConfigValue().
 *
 * @param file     the file's name, of at most 255 bytes; not null.
 * @param section  the section's name. Null is the section without a name.
 * @param key      the key of the entries; not null.
 * @return  TRUE, or FALSE.
 * @error EINVAL  the file or the key is null.
 * @error ENAMETOOLONG  the file name has more than 255 bytes.
 * @error ENOENT  there is no such file, section or entry.
 * @error EISDIR  the file, or what has the copy's name, is a directory.
 * @error ENOSPC  the file system is full.
 * @error others  as open(2), read(2), write(2) and fsync(2) give them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. Waits while another edit of the file goes on.
 */
VLL_API BOOL vllDeleteConfigValue(LPCSTR file, LPCSTR section, LPCSTR key);

/**
 * Appends an empty section, set off by an empty line. The file keeps its permissions. Not followed by
 * sync(2).
 *
 * @param file     the file's name, of at most 255 bytes; not null.
 * @param section  the section's name, of at most 1023 bytes; not null.
 * @return  TRUE, or FALSE.
 * @error EINVAL  the file or the section is null, or a header cannot hold the name: it is empty or too long,
 *                or has one of "];#" or a newline in it.
 * @error ENAMETOOLONG  the file name has more than 255 bytes.
 * @error ENOENT  there is no such file.
 * @error EEXIST  there is a section of that name. The copy stays, and the next edit removes it.
 * @error EISDIR  the file, or what has the copy's name, is a directory.
 * @error ENOSPC  the file system is full.
 * @error others  as open(2), read(2), write(2) and fsync(2) give them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. Waits while another edit of the file goes on.
 */
VLL_API BOOL vllAddConfigSection(LPCSTR file, LPCSTR section);

/**
 * Deletes a section with everything in it, comments and empty lines too. The file is replaced as by
 * vllAddConfigValue().
 *
 * @param file     the file's name, of at most 255 bytes; not null.
 * @param section  the section's name. Null deletes all lines before the first header.
 * @return  TRUE, or FALSE.
 * @error EINVAL  the file is null.
 * @error ENAMETOOLONG  the file name has more than 255 bytes.
 * @error ENOENT  there is no such file or section.
 * @error EISDIR  the file, or what has the copy's name, is a directory.
 * @error ENOSPC  the file system is full.
 * @error others  as open(2), read(2), write(2) and fsync(2) give them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. Waits while another edit of the file goes on.
 */
VLL_API BOOL vllDeleteConfigSection(LPCSTR file, LPCSTR section);

/**
 * Saves the system's configuration store, /proc/Ulmex/VConfig/data, to a file, which is created or emptied
 * first. A file that cannot be opened is also reported on standard output.
 *
 * @param key       not used.
 * @param file      the file's name; not null.
 * @param security  not used. May be null.
 * @return  0, or the error number, which is also the last error.
 * @error EINVAL  the file is null.
 * @error ENOENT  the system has no configuration store, or a directory of the file's name does not exist.
 * @error ENOSPC  the file system is full.
 * @error others  as fopen(3), fread(3) and fwrite(3) give them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API LONG vllRegSaveKey(HANDLE key, LPCSTR file, LPVOID security);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_PROFILE_H */
