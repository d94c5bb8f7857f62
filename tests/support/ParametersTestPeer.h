/*
 * Test access to the parts of the parameter store that the daemon never changes after start-up
 * (the interface map) or changes only through its guarded setters (the user-id lists). A test
 * uses it to lay out its own interfaces and lists before any other thread runs.
 */
#pragma once

#include "parameters/Parameters.h"

struct ParametersTestPeer {
    static std::map<std::string, InterfaceInfo_t*>& interfaces(Parameters* p) {
        return p->interfaces_;
    }
    static std::vector<std::string>& uidWhitelist(Parameters* p) { return p->uidWhitelist; }
    static std::vector<std::string>& dblWlanUidWhitelist(Parameters* p) {
        return p->dblWlanUidWhitelist;
    }
    static std::vector<std::string>& gamingUidList(Parameters* p) { return p->gamingUidList; }
};
