#include <iostream>

#include "commands.h"

namespace qxbus {

TagGroupCatalogue loadCatalogue(const std::string &root) {
    TagGroupCatalogue catalogue = TagGroupCatalogue::load(root);
    for (const auto &problem : catalogue.problems())
        std::cerr << "qxbus: warning: " << problem << '\n';
    return catalogue;
}

} // namespace qxbus
