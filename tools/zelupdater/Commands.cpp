#include "Commands.h"

const std::vector<Command> &allCommands()
{
    static const std::vector<Command> commands = [] {
        std::vector<Command> all;
        for (const auto &group :
             {deltaCommands(), patchCommands(), sealCommands(), updateCommands(), publishCommands()})
            all.insert(all.end(), group.begin(), group.end());
        return all;
    }();
    return commands;
}
