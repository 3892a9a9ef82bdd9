#ifndef TALVEK_DEV_MOUNT_H
#define TALVEK_DEV_MOUNT_H

/* Mounting with or without knowing the file system, and unmounting, of which NFS servers are
 * notified. */

#ifdef __cplusplus
extern "C" {
#endif

/* Mounts a disk, a partition or an NFS export.
 *
 *   pSrc     the device; a disk's name (one that does not end in a digit) stands for its partitions
 *            and then the disk itself. A name with ':' is an NFS export, "server:/path".
 *   pDir     an existing directory
 *   fsIndex  row of the file-system table (file_system.h):
 *            0 to 10  mounts with that type, its flags and its options. Of a disk "/dev/sdb",
 *                     "/dev/sdb0" to "/dev/sdb8" are tried in this order, then "/dev/sdb".
 *            9        is for exports and for nothing else; an export with another row is taken for
 *                     a device
 *            greater  tries every supported file system in the order of the table. Of a disk
 *                     "/dev/sdb", "/dev/sdb1" to "/dev/sdb9" are tried for each of them, then
 *                     "/dev/sdb", as far as Dev_CheckPartition knows them.
 *
 * tmpfs is a row like the others and the last: a device that is there but holds no file system
 * known before it gets a tmpfs on pDir when the file system is to be found. statfs(2) tells.
 *
 * An export is mounted by the command
 *   /bin/mount -t nfs -o rw,rsize=1048576,wsize=1048576,soft,tcp,nolock <pSrc> <pDir>
 * run by system(3). A name that the shell could misread is quoted in it, and "--" ends the options
 * ahead of names of which one begins with '-', so that a name is never a command or an option.
 *
 * Returns 0 when one of them was mounted, else -1; of an export, what system returned, which is 0
 * for success and the wait status of /bin/mount otherwise. */
int Dev_Mount(const char *pSrc, const char *pDir, unsigned fsIndex);

/* Unmounts what is mounted on a directory. When that was an NFS mount (type "nfs", whose servers
 * keep a list of mounts; not "nfs4"), its server is notified by the UMNT call of the MOUNT
 * protocol, version 3 (RFC 1813, appendix I): over TCP if the mount's options say so and a
 * connection is possible, else over UDP. The result does not depend on it. What fails is reported
 * on standard error, each time with a reason as RPC programs give it ("RPC: Program not
 * registered"):
 *
 *   "Cannot MOUNTPROG RPC (tcp): ..."  no mount daemon to connect to over TCP; UDP is tried
 *   "Cannot MOUNTPROG RPC: ..."        no mount daemon to send to over UDP
 *   "Bad UMNT RPC: ..."                the call failed
 *
 * A log line says why when the server is not called at all: it has no IPv4 address; the export does
 * not fit DEV_MOUNT_TEXT_SIZE, so that its path would be sent cut; or the options do not fit the
 * mount entry and the server's address (addr=) is not wholly in the part that does.
 *
 * Each call takes 3 seconds at most, its connection included, and the notification 9 seconds. When
 * the mount table has the server's name instead of its address, the look-up counts too, but may
 * take longer: getaddrinfo(3) has no time limit to set.
 *
 * Returns what umount(2) returned: 0, or -1 with the failure logged. */
int Dev_uMount(const char *pDir);

/* Dev_uMount by force (umount2(2) with MNT_FORCE): requests to an NFS server that does not answer
 * are broken off. Other busy file systems stay mounted as with Dev_uMount. */
int Dev_uMount_Force(const char *pDir);

#ifdef __cplusplus
}
#endif

#endif
