/** @file
 *  Command-line options: a table-driven parser and its help printer.
 *
 *  A table is an array of rows that ends with a row whose short_names, long_name and value_name
 *  are all null. Nothing is kept between calls; a row's value receives what the arguments say.
 *  Threads: any, each with its own table. Errors are logged, as the functions say. */
#ifndef TARN_CMDLINE_OPTION_H
#define TARN_CMDLINE_OPTION_H

#include "tarn.h"

TARN_BEGIN_DECLS

/** What a row stores. */
enum
{
    TARN_CMDLINE_OPTION_FLAG = 1,    /**< the byte 1 into a uint8_t or bool */
    TARN_CMDLINE_OPTION_INTEGER = 2, /**< an int, as atoi reads it */
    TARN_CMDLINE_OPTION_STRING = 3   /**< a const char * into argv, not a copy */
};

/** One option. */
typedef struct tarn_cmdline_option
{
    const char *short_names; /**< each character is a short name of this row; or null */
    const char *long_name;   /**< without the leading "--"; or null */
    const char *value_name;  /**< the argument's name in the help text; null: takes none */
    const char *description; /**< help text */
    uint32_t type;           /**< TARN_CMDLINE_OPTION_* */
    void *value;             /**< where the value is stored */
} tarn_cmdline_option;

/** Parse arguments 1 to argc - 1.
 *  Values of long options follow a "=" or are the next argument; values of short options are the
 *  rest of the cluster or the next argument; a next argument that begins with "-" is not taken.
 *  "--" ends the options.
 *  @param argc,argv      as main received them; argument 0 is not looked at
 *  @param options        the table; values already stored stay stored on an error
 *  @param allow_unknown  1 skips unknown options silently
 *  @return a mask with bit i set for each argument i that is not an option; negative
 *          (TARN_ERRLN) after an ERROR line. Arguments beyond the 31st are an error; a positional
 *          argument at place 31 sets the sign bit and so reads as an error too. A missing argument
 *          is logged but is no error. */
TARN_API int tarn_cmdline_option_parse(int argc, char *const *argv,
                                       const tarn_cmdline_option *options, int allow_unknown);

/** Print the rows as two aligned columns on standard output. */
TARN_API void tarn_cmdline_option_print(const tarn_cmdline_option *options);

/** Number of rows before the end row; 0 for null. */
TARN_API uint32_t tarn_cmdline_option_count(const tarn_cmdline_option *options);

TARN_END_DECLS

#endif
