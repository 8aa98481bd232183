/**
 * @file ostrel_serializer.h
 *
 * Ostrel: serializer of typed items into self-describing binary packets.
 *
 * A packet carries up to 255 items: integers of 1, 2, 4 and 8 bytes, pointer
 * values, strings, arrays of these and whole packets nested inside it. Its
 * header fixes the byte order (little- or big-endian), the alignment of every
 * field (1, 2, 4 or 8 bytes) and the mode: ordered (items are read back in
 * the order written) or unordered (each item carries an index 1..255 and is
 * read back by index).
 *
 * Writing: Ostrel_Serializer_SerializeInit makes a handle from a
 * configuration, Ostrel_Serializer_Serialize appends items described by a
 * descriptor string, Ostrel_Serializer_GetBuffer returns the finished packet
 * (a pointer into the handle's buffer) and Ostrel_Serializer_Destroy frees
 * the handle. Reading: Ostrel_Serializer_DeserializeInit validates a received
 * packet and makes a reading handle for it, Ostrel_Serializer_Deserialize
 * takes items out. The packet bytes stay the caller's: they must outlive the
 * reading handle and every reference taken from it.
 *
 * Descriptors (spaces and tabs between them are skipped):
 *
 *     prefix  '%' copy; '@' reference into the packet; '@N' (reading) a copy in
 *             new memory from Ostrel_Malloc_D/Ostrel_Calloc_D, to be released
 *             with Ostrel_Free; '#' (writing) as '%', and an array whose
 *             pointer is NULL while its count is not 0 is kept as a null array.
 *     index   unordered mode only: decimal 1..255 followed by '.', e.g. "%3.d".
 *     array   optional 'a' before the letter: an array.
 *     letter  'c' 8-bit, 'h' 16-bit, 'd' 32-bit, 'l' 64-bit integer,
 *             'p' pointer value, 's' string, 'b' nested packet.
 *
 * Writing arguments: 'c', 'h', 'd' an int; 'l' an int64_t; 'p' a pointer;
 * 's' a const char * (NULL allowed); 'b' an Ostrel_Serializer *. Arrays: a
 * pointer to the elements (uint8_t, uint16_t, int32_t, int64_t, void *, or
 * Ostrel_Serializer * for 'ab') followed by an int element count.
 *
 * Reading arguments: `%` scalars a pointer to a variable of the item's size;
 * `@` scalars a const void ** that receives the value's address in the
 * packet; `@N` scalars a void ** that receives a new block holding the value.
 * '%s' a char * buffer followed by an int * holding its size in bytes
 * (the size pointer is taken only when the buffer is not NULL); `@s` and
 * `@Ns` a char **. Arrays: the destination (an element buffer for `%`, a
 * pointer variable for `@` and `@N`) followed by an unsigned int * holding
 * the capacity in elements (`%`) and receiving the element count. `@b` an
 * Ostrel_Serializer ** (NULL, or an existing reading handle to reuse), `@ab`
 * an array of Ostrel_Serializer * followed by an unsigned int * count.
 * Empty and null arrays give a NULL address with `@` and `@N`; a null array
 * read with `%` zeroes the first 8 bytes of the element buffer (at most its
 * capacity). In ordered mode, reading past the last item gives 0x90018.
 *
 * A packet in the other byte order than the host's is converted on reading.
 * With `@` the conversion happens in place, inside the caller's packet: the
 * packet bytes must be writable, and each multi-byte item of such a packet
 * must be read with `@` at most once (a second `@` read converts it back).
 *
 * Handles are not locked: one thread uses a handle at a time. Every function
 * returns 0 or an error code: 0x9000F for a failed argument check (not stored
 * as the last error), 0x90010 for a bad handle, 0x90012 for invalid packet
 * data, 0x90013 for a descriptor that does not fit, 0x90014 for a handle of
 * the other kind, 0x90004 for a destination that is too small, 0x90006 for
 * memory, 0x90018 for an item that cannot be found. A failed Serialize keeps
 * the items written before the failing descriptor.
 */
#ifndef OSTREL_SERIALIZER_H
#define OSTREL_SERIALIZER_H

#include "ostrel_common.h"

OSTREL_EXTERN_C_BEGIN

/** Serialize modes. */
#define OSL_SLZ_MODE_APPEND 1 /**< append to the packet as it stands */
#define OSL_SLZ_MODE_RESET 2  /**< empty the packet first, keeping the buffer */

/** Configuration of a writing handle; read only during the call. */
typedef struct Ostrel_SerializerConfig {
    int32_t iExtended;   /**< bPointer32 counts only when this is greater than 0 */
    uint32_t uEndian;    /**< 0 little-endian, 1 big-endian */
    uint32_t uAlign;     /**< 1, 2, 4 or 8 */
    uint32_t uOrder;     /**< 0 unordered (indexed items), 1 ordered */
    uint32_t bPointer32; /**< nonzero: pointer items are 32 bits wide */
} Ostrel_SerializerConfig;

/** A writing or reading handle (opaque). */
typedef struct Ostrel_Serializer Ostrel_Serializer;

/** Creates a writing handle. 0x90012 for an invalid byte order, order or
 * alignment. */
OSTREL_API uint32_t Ostrel_Serializer_SerializeInit(const Ostrel_SerializerConfig *pConfig, Ostrel_Serializer **phSer);

/** Appends the items szFormat describes (mode OSL_SLZ_MODE_APPEND or
 * OSL_SLZ_MODE_RESET). */
OSTREL_API uint32_t Ostrel_Serializer_Serialize(Ostrel_Serializer *pSer, int mode, const char *szFormat, ...);

/** Finishes the packet's header and returns the packet and its length. The
 * pointer stays valid until the next Serialize or Destroy on the handle.
 * Reading handles are refused with 0x90014. */
OSTREL_API uint32_t Ostrel_Serializer_GetBuffer(Ostrel_Serializer *pSer, unsigned char **ppucBuf, int *piLength);

/** Frees a writing or a reading handle. */
OSTREL_API uint32_t Ostrel_Serializer_Destroy(Ostrel_Serializer *pSer);

/** Validates the packet and makes *phSer a reading handle for it: a new one
 * when *phSer is NULL, else the reading handle in *phSer is reused (and left
 * on its previous packet when validation fails). */
OSTREL_API uint32_t Ostrel_Serializer_DeserializeInit(const unsigned char *pucBuf, int length,
                                                      Ostrel_Serializer **phSer);

/** As Ostrel_Serializer_DeserializeInit; then pointer items are read as 32-bit
 * values when pConfig's iExtended > 0 and bPointer32 is nonzero. The other
 * fields are not used: the packet's header decides the rest. */
OSTREL_API uint32_t Ostrel_Serializer_DeserializeInit_Ex(const Ostrel_SerializerConfig *pConfig,
                                                         const unsigned char *pucBuf, int length,
                                                         Ostrel_Serializer **phSer);

/** Takes the items szFormat describes out of the packet. In ordered mode each
 * call continues where the previous successful one stopped. */
OSTREL_API uint32_t Ostrel_Serializer_Deserialize(Ostrel_Serializer *pSer, const char *szFormat, ...);

OSTREL_EXTERN_C_END

#endif /* OSTREL_SERIALIZER_H */
