#ifndef TALVEK_DEV_MOUNT_H
#define TALVEK_DEV_MOUNT_H

/* Mounting, with a given file system or a detected one, and unmounting. NFS servers are notified of
 * an unmount. */

#ifdef __cplusplus
extern "C" {
#endif

/* Mounts a disk, a partition or an NFS export.
 *
 *   pSrc     the device, or an NFS export "server:/path" (any name with ':'). A name that does not
 *            end in a digit is a disk; its partitions are tried too.
 *   pDir     an existing directory
 *   fsIndex  DEV_FS_XFS to DEV_FS_TMPFS (file_system.h): mounts with this type and its flags and
 *            options. Of a disk "/dev/sdb", "/dev/sdb0" to "/dev/sdb8" and then "/dev/sdb" are
 *            tried. With DEV_FS_NFS, pSrc must be an export. With another row, a name with ':' is
 *            the name of a device.
 *            DEV_FS_DETECT or greater: tries every supported file system in the order of the table.
 *            For each of them, "/dev/sdb1" to "/dev/sdb9" and then "/dev/sdb" are tried, as far as
 *            Dev_CheckPartition (mount_table.h) finds them.
 *
 * Warning: detection ends with tmpfs, which accepts every device. An existing device without a file
 * system that can be mounted, for example a write-protected FAT stick, gets an empty tmpfs on pDir
 * and the result is 0. What is written there is lost. statfs(2) shows what was mounted:
 *
 *   struct statfs st;
 *   if (Dev_Mount("/dev/sdb", pDir, DEV_FS_DETECT) == 0 && statfs(pDir, &st) == 0 &&
 *       st.f_type == DEV_FS_TYPE_TMPFS) {
 *       Dev_uMount(pDir);   // the device has no file system that can be mounted
 *   }
 *
 * Warning: ext4 is mounted with data=writeback and barrier=0: without write barriers, a power
 * failure may damage the file system unless the drive's write cache is off or protected.
 *
 * An export is mounted with this command, run by system(3):
 *   /bin/mount -t nfs -o rw,rsize=1048576,wsize=1048576,soft,tcp,nolock <pSrc> <pDir>
 * A name with characters that the shell would interpret is quoted. If a name begins with '-', "--"
 * precedes the names. A name is therefore never a command or an option.
 *
 * Returns 0 when a mount succeeded, else -1. With a row other than DEV_FS_NFS, errno is then that
 * of the last mount(2), or EINVAL for NULL and an empty pSrc. For an export, returns the result of
 * system(3): 0, the wait status of /bin/mount, or -1. */
int Dev_Mount(const char *pSrc, const char *pDir, unsigned fsIndex);

/* Unmounts what is mounted on a directory. When that was an NFS mount (type "nfs", whose servers
 * keep a list of mounts; not "nfs4"), its server is notified by the UMNT call of the MOUNT
 * protocol, version 3 (RFC 1813, appendix I): over TCP if the mount's options say so and a
 * connection is possible, else over UDP. The result does not depend on it. The mount is looked up
 * by pDir as the mount table spells it; slashes at the end of pDir are ignored. What fails is
 * reported on standard error, each time with a reason as RPC programs give it ("RPC: Program not
 * registered"):
 *
 *   "Cannot MOUNTPROG RPC (tcp): ..."  no mount daemon to connect to over TCP; UDP is tried
 *   "Cannot MOUNTPROG RPC: ..."        no mount daemon to send to over UDP
 *   "Bad UMNT RPC: ..."                the call failed
 *
 * The server is not called, and a log line says why, when it has no IPv4 address; when the export
 * does not fit DEV_MOUNT_TEXT_SIZE, so that its path would be truncated; or when the options do not
 * fit tMountEntry and the address of the server (addr=) may be truncated.
 *
 * Each call ends after at most 3 seconds, including its connection, and the whole notification
 * after 9. If the mount table has the name of the server instead of its address, the name is looked
 * up first. That time counts, but has no limit of its own, since getaddrinfo(3) accepts none.
 *
 * Returns what umount(2) returned: 0, or -1 with the failure logged. NULL is not logged. */
int Dev_uMount(const char *pDir);

/* Dev_uMount with MNT_FORCE (umount2(2)): pending requests to an NFS server that does not answer
 * are aborted. Other busy file systems stay mounted, as with Dev_uMount. */
int Dev_uMount_Force(const char *pDir);

#ifdef __cplusplus
}
#endif

#endif
