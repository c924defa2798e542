/*
 * Platform error codes.
 *
 * A platform call that fails returns (or stores) one of these 32-bit codes, or a plain errno
 * value (below 0x10000). Layout of a code: bits 31..24 class (0x40 status, 0x41 service
 * status, 0x80 error), bits 23..16 the service (0x1e system manager, 0x48 PSS, 0x1a SDB,
 * 0x4d MTS), bits 15..0 the code within the service. hadra_syserr2str()/syserr2str() give the
 * text of every code in this table and strerror() text for errno values; any other value is
 * rendered as "unknown error 0x%08x", never invented.
 */
#ifndef HADRA_PLATFORM_ERRORS_H
#define HADRA_PLATFORM_ERRORS_H

/* System manager */
#define PLAT_ERR_SYSMGR_GSYNC_FATAL 0x401e0010u       /* fatal gsync error */
#define PLAT_ERR_SYSMGR_SRV_NOT_ON_ACTIVE 0x401e0011u /* service not running on the active */
#define PLAT_ERR_SYSMGR_BAD_URI 0x801e0001u           /* URI malformed or too long */
#define PLAT_ERR_SYSMGR_NO_TABLE 0x801e0002u          /* sequence-number table not allocated */
#define PLAT_ERR_SYSMGR_BAD_INDEX 0x801e0003u         /* registry index out of range */
#define PLAT_ERR_SYSMGR_NO_DAEMON 0x801e0004u         /* system-manager daemon unreachable */

/* PSS */
#define PLAT_ERR_PSS_NO_RECORD 0x40480003u     /* no record at the key or position */
#define PLAT_ERR_PSS_NOT_FOUND 0x80480002u     /* PSS file does not exist */
#define PLAT_ERR_PSS_EXISTS 0x80480004u        /* PSS file already exists */
#define PLAT_ERR_PSS_BAD_HANDLE 0x80480005u    /* handle not open */
#define PLAT_ERR_PSS_FULL 0x80480006u          /* the file's size limit is reached */
#define PLAT_ERR_PSS_BAD_ARG 0x80480007u       /* invalid argument (null key, bad flags, ...) */
#define PLAT_ERR_PSS_IO 0x80480008u            /* storage error from the store */
#define PLAT_ERR_PSS_BAD_URI 0x80480009u       /* URI does not name a PSS location */
#define PLAT_ERR_PSS_TOO_MANY 0x8048000au      /* too many open handles */
#define PLAT_ERR_PSS_READ_ONLY 0x8048000bu     /* write through a handle opened without write access */

/* SDB */
#define PLAT_ERR_SDB_ALREADY_OPEN 0x411a0003u  /* SDB already open in this process */
#define PLAT_ERR_SDB_EXISTS 0x411a000eu        /* SDB already exists */
#define PLAT_ERR_SDB_NOT_FOUND 0x801a0001u     /* SDB does not exist */
#define PLAT_ERR_SDB_NOT_OPEN 0x801a0002u      /* SDB not open in this process */
#define PLAT_ERR_SDB_NO_RECORD 0x401a0004u     /* no record at the key */
#define PLAT_ERR_SDB_BAD_ARG 0x801a0005u       /* invalid argument */
#define PLAT_ERR_SDB_IO 0x801a0006u            /* storage error from the store */
#define PLAT_ERR_SDB_FULL 0x801a0007u          /* the SDB's size limit is reached */
#define PLAT_ERR_SDB_READ_ONLY 0x801a0008u     /* write on an SDB opened read-only */
#define PLAT_ERR_SDB_BAD_URI 0x801a0009u       /* URI does not name an SDB location */
#define PLAT_ERR_SDB_NO_ITER 0x401a000au       /* iterator not positioned / at end */

/* MTS */
#define PLAT_ERR_MTS_NO_SAP 0x804d0001u        /* SAP not bound in this process */
#define PLAT_ERR_MTS_NO_PEER 0x804d0002u       /* peer unreachable */
#define PLAT_ERR_MTS_TOO_BIG 0x804d0003u       /* payload larger than the transport allows */
#define PLAT_ERR_MTS_BAD_MSG 0x804d0004u       /* malformed message or reference */
#define PLAT_ERR_MTS_EMPTY 0x404d0005u         /* nothing to receive */
#define PLAT_ERR_MTS_SEQ_GAP 0x804d0006u       /* sender's sequence numbers skipped */

#endif
