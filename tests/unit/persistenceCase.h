// The cases for the persistent flag of message and record. The rule is the same for both platforms.
#ifndef PERSISTENCE_CASE_H
#define PERSISTENCE_CASE_H

#include <array>

#include "moduleTest.h"

struct PersistenceCase {
    bool Has;
    bool Flag;
    bool HostKeeps;
    BOOL Before;
    BOOL After;

    template <typename Pb>
    void Put(Pb &Message) const
    {
        Message.has_persistentflag = Has ? 1 : 0;
        Message.persistentflag = Flag ? 1 : 0;
        // Ignored by the module.
        Message.has_historypersistent = 1;
        Message.historypersistent = Flag ? 0 : 1;
    }
};

inline constexpr std::array<PersistenceCase, 6> kPersistenceCases{{{true, true, true, FALSE, TRUE},
                                                                   {true, true, false, FALSE, FALSE},
                                                                   {true, true, false, TRUE, TRUE},
                                                                   {true, false, true, TRUE, FALSE},
                                                                   {false, true, true, FALSE, FALSE},
                                                                   {false, false, true, TRUE, TRUE}}};

#endif
