/* Definitions that all other headers of the host interface use. */
#ifndef VQ_PLATFORM_H
#define VQ_PLATFORM_H

#include <stddef.h>
#include <stdint.h>

#include <urcu/list.h>

#ifdef __cplusplus
#define VQ_EXTERN_C_BEGIN extern "C" {
#define VQ_EXTERN_C_END }
/* Every enumeration of the interface has 32 bits and may hold any 32-bit value. In C this is so without help. In C++
 * only an enumeration with a fixed underlying type may hold values that it does not name. */
#define VQ_ENUM32 : uint32_t
#else
#define VQ_EXTERN_C_BEGIN
#define VQ_EXTERN_C_END
#define VQ_ENUM32
#endif

/* Marks a function that formats like printf: the index of the format and of its first argument, counted from 1. */
#define VQ_PRINTF_LIKE(FormatIndex, FirstArgument) __attribute__((format(printf, FormatIndex, FirstArgument)))

/* Other C libraries define FALSE and TRUE as macros. Here they are values of BOOL. */
#undef FALSE
#undef TRUE

typedef enum VQ_ENUM32 { FALSE = 0, TRUE = 1 } BOOL;

/* 0 or more: success. A negated errno value: failure. */
typedef int32_t VQ_ERR_T;

/* Link of a circular doubly linked list. The head of an empty list points at itself. */
typedef struct cds_list_head VQ_PLATFORM_LIST_HEAD;
typedef VQ_PLATFORM_LIST_HEAD VQ_LIST_HEAD;

#endif
