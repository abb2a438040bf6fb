/* ow_export.h: the export macro of the ardvex library's public C interface.
 * The shared library is built with hidden visibility; only declarations marked OW_API are
 * part of its ABI. */
#ifndef OW_EXPORT_H
#define OW_EXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define OW_API __attribute__((visibility("default")))
#define OW_PRINTF(fmt_index, first_arg) __attribute__((format(printf, fmt_index, first_arg)))
#else
#define OW_API
#define OW_PRINTF(fmt_index, first_arg)
#endif

#endif /* OW_EXPORT_H */
