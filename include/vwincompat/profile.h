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
 * Names are compared without regard to ASCII letter case; of several sections with one name, or several entries
 * with one key in a section, the first counts. The lines before the first header are a section without a name:
 * a null section means that one. An unclosed quotation, text behind a quotation or a header, an empty key and
 * an empty name make a line malformed: it is skipped. A NUL byte ends a line for the readers.
 *
 * Limits: a section name, a key or a value has at most 1023 bytes; a line with a longer one is malformed. Of a
 * line of more than 4095 bytes every 4095 are read as a line of their own.
 *
 * Nothing is cached: each operation reads the file anew. File names are used as they are, without conversion
 * of Windows paths. Operations take no lock, and none is a cancellation point; they block as long as the file system
 * does. Two edits of one file at the same time, by threads or processes, can lose one another's change:
 * callers take turns.
 *
 * An edit writes a complete copy, named as the file with "copy" appended, and renames it over the file: whoever
 * reads meanwhile, or finds the file after a crash, sees the old file or the new one. So an edit takes
 * room on the file system for two files, and a symbolic link or one of several hard links is replaced by a plain
 * file. When anything fails the file is as it was, and so is every line that an edit does not concern, byte for byte.
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
 * @param section        the section's name, or null.
 * @param key            the entry's key.
 * @param default_value  the result when there is no such file, section or key, or the value has 50 bytes or more.
 * @return the value, read as atoi(3) does: leading blanks, a sign, decimal digits; what follows does not count,
 *         and text without a number is 0. A number beyond 32 bits gives the nearest one within. When it is the
 *         default, the last error tells why: as for vllReadConfigValue().
 */
VLL_API UINT vllGetPrivateProfileInt(LPCSTR section, LPCSTR key, int32_t default_value, LPCSTR file);

/**
 * Reads one value, or lists sections or keys.
 *
 * With section and key: the value, cut to size - 1 bytes; the default when file, section or key are missing.
 * With a section only: its keys, as vllReadAllValues(). With a key only: all sections, as vllReadAllSections().
 *
 * @param default_value  what is stored when there is nothing to read, cut to size - 1 bytes; not in the buffer itself.
 *                       Null means "".
 * @param buffer         where the result goes, with its terminator.
 * @param size           the buffer's size in bytes; 0 with a section and a key: nothing is stored, the result is 0.
 * @return the number of bytes stored, without the terminator. Last error: 0 when a value was read whole; ENOBUFS
 *         when it was cut (the result is size - 1); what vllReadConfigValue() says when the default was stored. For
 *         the lists see there: a missing file gives (DWORD)-1 and leaves the buffer alone. (DWORD)-1 with EINVAL
 *         when section and key are both null, 0 with EINVAL for a null buffer.
 */
VLL_API DWORD vllGetPrivateProfileString(LPCSTR section, LPCSTR key, LPCSTR default_value, LPSTR buffer,
                                         DWORD size, LPCSTR file);

/**
 * Reads all entries of a section as strings "key=value", each with its terminator, and one more terminator at the
 * end. Quotes around keys and values are removed, an entry without '=' gets one.
 *
 * @param section  the section's name, or null.
 * @param buffer   cleared first; untouched when the file cannot be read.
 * @param size     the buffer's size in bytes, at least 2.
 * @return the number of bytes stored without the last terminator; size - 2 with ENOBUFS when the list was cut.
 *         0 for an empty section, with ENOENT when there is none, with the error of open(2) or read(2) when the file
 *         cannot be read, and with EINVAL for a buffer of less than 2 bytes; the last error is unchanged otherwise.
 */
VLL_API DWORD vllGetPrivateProfileSection(LPCSTR section, LPSTR buffer, DWORD size, LPCSTR file);

/**
 * Sets or deletes an entry, or deletes a section. Creates the file and the section when they do not exist, for
 * deletions too.
 *
 * With a key and a value: as vllAddConfigValue(). With a key and no value: as vllDeleteConfigValue(). Without a key: as
 * vllDeleteConfigSection(); so three null pointers delete all lines before the first section, where Win32 would
 * flush its cache.
 *
 * @return TRUE, or FALSE with the error of the step that failed. EINVAL for a null file; nothing is created or
 *         changed with arguments that vllAddConfigSection() or vllAddConfigValue() refuse.
 */
VLL_API BOOL vllWritePrivateProfileString(LPCSTR section, LPCSTR key, LPCSTR value, LPCSTR file);

/**
 * Reads one value.
 *
 * @param file     a file name.
 * @param section  the section's name, or null.
 * @param key      the entry's key.
 * @param buffer   where the value goes, with its terminator. May be null when the size is 0.
 * @param size     in: the buffer's size in bytes. Out: the value's length without terminator.
 * @return TRUE with a last error of 0, or FALSE:
 *         - the error of open(2) or read(2) when the file cannot be read; buffer and size are untouched
 *         - ENOENT: no such section; buffer and size are untouched
 *         - ENOENT: no such key; the buffer holds "" and the size is 0
 *         - ENOBUFS: the value is too long; the buffer holds its first size - 1 bytes and a terminator (nothing
 *           when its size is 0), and the size is what is needed: the length plus 1
 *         - EINVAL: a null pointer among file, key, buffer and size
 */
VLL_API BOOL vllReadConfigValue(LPCSTR file, LPCSTR section, LPCSTR key, LPSTR buffer, DWORD *size);

/**
 * Lists the names of all sections, in the order of the file, repeated ones too: strings with their terminators, and
 * one more terminator at the end.
 *
 * @param default_value  what is stored instead when the file has no section, cut to size - 1 bytes. Null means "".
 * @param buffer         cleared first; untouched when the file cannot be read.
 * @param size           the buffer's size in bytes, at least 2.
 * @return the number of bytes stored without the last terminator; size - 2 with ENOBUFS when the list was cut; the
 *         length of the default when that was stored, with the last error unchanged. (DWORD)-1 with the error of
 *         open(2) or read(2) when the file cannot be read, or EINVAL for a null name; 0 with EINVAL for a null
 *         buffer or one of less than 2 bytes.
 */
VLL_API DWORD vllReadAllSections(LPCSTR default_value, LPSTR buffer, DWORD size, LPCSTR file);

/**
 * Lists the keys of a section as vllReadAllSections() lists sections.
 *
 * @param section  the section's name, or null.
 * @return as vllReadAllSections(). The default is stored, with ENOENT, when there is no such section, or nothing
 *         in it.
 */
VLL_API DWORD vllReadAllValues(LPCSTR section, LPCSTR default_value, LPSTR buffer, DWORD size, LPCSTR file);

/**
 * Sets an entry. It becomes the first line of its section, and all entries with its key disappear.
 *
 * The value is written as it is: blanks at its ends, a blank followed by ';' or '#', and quotes read back
 * differently, and a newline in it makes further lines. Do not pass on unchecked text. The key is written between
 * double quotes when it has a blank or tab in it.
 *
 * The new file has the default permissions of the process, not those of the old one. The change is on the disk when
 * the operation returns: it calls sync(2), which may take long.
 *
 * @param file     a file name of at most 255 bytes.
 * @param section  the section's name, or null.
 * @return TRUE, or FALSE:
 *         - ENOENT: no such section, or no such file
 *         - ENAMETOOLONG: the file name has more than 255 bytes
 *         - EINVAL: a null pointer among file, key and value, a value of more than 1023 bytes, or a key that could
 *           not be read back: empty or too long, with a newline, with '=' but no blank, starting with a quote
 *           or as a comment or header does
 *         - what open(2), read(2), write(2) or fsync(2) said
 */
VLL_API BOOL vllAddConfigValue(LPCSTR file, LPCSTR section, LPCSTR key, LPCSTR value);

/**
 * Deletes all entries with a key from a section. The file is replaced as by vllAddConfigValue().
 *
 * @return TRUE, or FALSE as vllAddConfigValue(); ENOENT also when there is no such entry.
 */
VLL_API BOOL vllDeleteConfigValue(LPCSTR file, LPCSTR section, LPCSTR key);

/**
 * Appends an empty section, set off by an empty line. The file keeps its permissions. Not followed by sync(2).
 *
 * @return TRUE, or FALSE:
 *         - EEXIST: there is a section of that name; the copy stays, and the next edit removes it
 *         - ENAMETOOLONG: the file name has more than 255 bytes
 *         - EINVAL: a null pointer, or a name that a header cannot hold: empty, too long, or with one of
 *           "];#" or a newline in it
 *         - the error of vllCopyFile(), or of open(2), read(2), write(2) or fsync(2)
 */
VLL_API BOOL vllAddConfigSection(LPCSTR file, LPCSTR section);

/**
 * Deletes a section with everything in it, comments and empty lines too. With null: all lines before the first
 * header. The file is replaced as by vllAddConfigValue().
 *
 * @return TRUE, or FALSE as vllAddConfigValue().
 */
VLL_API BOOL vllDeleteConfigSection(LPCSTR file, LPCSTR section);

/**
 * Saves the system's configuration store, /proc/Ulmex/VConfig/data, to a file, which is created or emptied first.
 *
 * @param key       not used.
 * @param security  not used.
 * @return 0, or an error number. A file that cannot be opened is also reported on standard output.
 */
VLL_API LONG vllRegSaveKey(HANDLE key, LPCSTR file, LPVOID security);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_PROFILE_H */
