/* Platform definitions that every other header of the host interface builds on. */
#ifndef VQ_PLATFORM_H
#define VQ_PLATFORM_H

#include <stddef.h>
#include <stdint.h>

#include <urcu/list.h>

#ifdef __cplusplus
#define VQ_EXTERN_C_BEGIN extern "C" {
#define VQ_EXTERN_C_END }
/* Every enumeration that crosses the interface is 32 bits and may hold any 32-bit value. C gives that by itself; C++
 * gives it only to an enumeration with a fixed underlying type. */
#define VQ_ENUM32 : uint32_t
#else
#define VQ_EXTERN_C_BEGIN
#define VQ_EXTERN_C_END
#define VQ_ENUM32
#endif

/* For functions that format like printf: index of the format and of its first argument, counted from 1. */
#define VQ_PRINTF_LIKE(FormatIndex, FirstArgument) __attribute__((format(printf, FormatIndex, FirstArgument)))

/* Other C libraries define these two as macros. Here they are values of BOOL. */
#undef FALSE
#undef TRUE

typedef enum VQ_ENUM32 { FALSE = 0, TRUE = 1 } BOOL;

/* 0 or more: success. A negated errno value: failure. */
typedef int32_t VQ_ERR_T;

/* Circular doubly linked list link; an empty list's head points at itself. */
typedef struct cds_list_head VQ_PLATFORM_LIST_HEAD;
typedef VQ_PLATFORM_LIST_HEAD VQ_LIST_HEAD;

#endif
