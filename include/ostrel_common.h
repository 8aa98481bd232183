/**
 * @file ostrel_common.h
 *
 * Ostrel: definitions shared by every family of exported functions:
 * the export marker, error codes, storage modes and log levels.
 *
 * An error code is an unsigned 32-bit value, 0 for success. Bits 31..16 hold
 * the module id (0..1023), bit 15 marks a module-specific code, and for a
 * generic code bits 7..0 select the text (bits 14..8 are ignored). Ostrel's
 * own codes belong to module 9, so they read 0x9xxxx.
 */
#ifndef OSTREL_COMMON_H
#define OSTREL_COMMON_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define OSTREL_API __attribute__((visibility("default")))
#else
#define OSTREL_API
#endif

#ifdef __cplusplus
#define OSTREL_EXTERN_C_BEGIN extern "C" {
#define OSTREL_EXTERN_C_END }
#else
#define OSTREL_EXTERN_C_BEGIN
#define OSTREL_EXTERN_C_END
#endif

/** Module ids. */
#define OSL_MODULE_BASE 0u
#define OSL_MODULE_OSTREL 9u
#define OSL_MODULE_NETBASE 10u
#define OSL_MODULE_DEMO 1023u
#define OSL_MODULE_MAX 1023u

/** Build a generic code of a module: OSL_MAKE_CODE(9, 15) == 0x9000F. */
#define OSL_MAKE_CODE(module, num) ((uint32_t)(((uint32_t)(module) << 16) | ((uint32_t)(num) & 0xFFu)))

/** Ostrel's own codes (module 9). */
#define OSL_OK 0u
#define OSL_ERR_UNKNOWN 0x90001u            /**< "Unknown error." */
#define OSL_ERR_UNIMPLEMENTED 0x90002u      /**< "Unimplemented function." */
#define OSL_ERR_UNEXPECTED_FLOW 0x90003u    /**< "Unexpected internal flow." */
#define OSL_ERR_BUFFER_TOO_SMALL 0x90004u   /**< "Buffer too small." */
#define OSL_ERR_ASSERT 0x90005u             /**< "Assert failed." */
#define OSL_ERR_NO_MEMORY 0x90006u          /**< "Not enough memory." */
#define OSL_ERR_INCOMPATIBLE_VERSION 0x90007u /**< "Incompatible version." */
#define OSL_ERR_NOT_EMPTY 0x90008u          /**< "Not empty." */
#define OSL_ERR_FILE_EXISTS 0x90009u        /**< "File already exists." */
#define OSL_ERR_ACCESS_DENIED 0x9000Au      /**< "Access denied." */
#define OSL_ERR_USER_CANCELED 0x9000Bu      /**< "User canceled." */
#define OSL_ERR_NOT_LOGGED_IN 0x9000Cu      /**< "Has not logged in." */
#define OSL_ERR_DLL_LOAD 0x9000Du           /**< "Dll load failed." */
#define OSL_ERR_DLL_FUNC 0x9000Eu           /**< "Can not find specified func in dll." */
#define OSL_ERR_INVALID_PARAMETER 0x9000Fu  /**< "Invalid parameter." */
#define OSL_ERR_INVALID_HANDLE 0x90010u     /**< "Invalid handle." */
#define OSL_ERR_INVALID_LENGTH 0x90011u     /**< "Invalid length." */
#define OSL_ERR_INVALID_DATA 0x90012u       /**< "Invalid data content." */
#define OSL_ERR_INVALID_FORMAT 0x90013u     /**< "Invalid format." */
#define OSL_ERR_INVALID_STATUS 0x90014u     /**< "Invalid status." */
#define OSL_ERR_INVALID_TYPE 0x90015u       /**< "Invalid type." */
#define OSL_ERR_INVALID_COMMAND 0x90016u    /**< "Invalid command." */
#define OSL_ERR_FILE_NOT_FOUND 0x90017u     /**< "Can not find specified file." */
#define OSL_ERR_NOT_FOUND 0x90018u          /**< "Can not find specified item(node,element)." */
#define OSL_ERR_DEVICE_NOT_FOUND 0x90019u   /**< "Can not find specified device." */
#define OSL_ERR_CERT_NOT_FOUND 0x9001Au     /**< "Can not find specified certificate." */
#define OSL_ERR_ALGORITHM_NOT_FOUND 0x9001Bu/* "Can not find specified algorithm." */
#define OSL_ERR_ALGORITHM_MODE_NOT_FOUND 0x9001Cu/* "Can not find specified algorithm mode." */
#define OSL_ERR_PASSWORD_WRONG 0x9001Du     /**< "Password wrong." */
#define OSL_ERR_PASSWORD_LOCKED 0x9001Eu    /**< "Password locked." */
#define OSL_ERR_PASSWORD_TOO_SIMPLE 0x9001Fu/* "Password too simple." */
#define OSL_ERR_SIGNATURE 0x90020u          /**< "Signature verification failed." */
#define OSL_ERR_CRC 0x90021u                /**< "CRC verification failed." */
#define OSL_ERR_COMPARE 0x90022u            /**< "Data comparation failed." */
#define OSL_ERR_CREATE_PROCESS 0x90023u     /**< "Create process failed." */
#define OSL_ERR_CREATE_THREAD 0x90024u      /**< "Create thread failed." */
#define OSL_ERR_SYSTEM_FULL 0x90025u        /**< "System full." */
#define OSL_ERR_SYSTEM_BUSY 0x90026u        /**< "System busy." */
#define OSL_ERR_NETWORK_TIMEOUT 0x90027u    /**< "Network timeout." */
#define OSL_ERR_NETWORK_UNREACHABLE 0x90028u/* "Network unreachable." */
#define OSL_ERR_CONNECTION_CLOSED 0x90029u  /**< "Connection closed by peer." */
#define OSL_ERR_DUPLICATE_KEY 0x9002Au      /**< "Duplicate key." */
#define OSL_ERR_ASYNC_BUSY 0x9002Bu         /**< "Async worker is busy, can not start more task." */
#define OSL_ERR_ASYNC_PENDING 0x9002Cu      /**< "Async task is pending." */
#define OSL_ERR_ASYNC_CANCELED 0x9002Du     /**< "Async task is canceled." */
#define OSL_ERR_ASYNC_PROCESSING 0x9002Eu   /**< "Async task is processing." */
#define OSL_ERR_INVALID_TICKET 0x9002Fu     /**< "Invalid ticket." */
#define OSL_ERR_TICKET_EXPIRED 0x90030u     /**< "Ticket already expired." */
#define OSL_ERR_EMPTY 0x90031u              /**< "Is empty." */
#define OSL_ERR_SYSTEM 0x90032u             /**< "Unexpected system error." */
#define OSL_ERR_CREATE_OBJECT 0x90033u      /**< "Create object failed." */
#define OSL_ERR_INVALID_SERIAL 0x90034u     /**< "Invalid serial no." */

/** Storage modes of list nodes and table values. */
#define NODE_STORAGE_REFERENCE 0 /**< keep the caller's pointer and length */
#define NODE_STORAGE_COPY 1      /**< keep an own heap copy of the bytes */

/** Log levels: one bit each; a log line carries exactly one. */
#define LOG_LEVEL_TRACE 1
#define LOG_LEVEL_INFO 2
#define LOG_LEVEL_WARN 4
#define LOG_LEVEL_ERROR 8

#endif /* OSTREL_COMMON_H */
