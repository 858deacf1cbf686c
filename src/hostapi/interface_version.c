/* The version of the host interface that a module was built for, as a note in its file: owner "Kavel", type 1, one
 * 32-bit number. It is no symbol, so the names that the module exports stay as they are. vq-hostcheck reads it. */
#include "vqPlatform.h"

#define TEXT_OF(Macro) TEXT(Macro)
#define TEXT(Words) #Words

__asm__(".pushsection .note.kavel,\"a\",%note\n"
        ".balign 4\n"
        ".4byte 6, 4, 1\n"
        ".asciz \"Kavel\"\n"
        ".balign 4\n"
        ".4byte " TEXT_OF(VQ_HOST_INTERFACE_VERSION) "\n"
                                                     ".popsection\n");
