#include "ostr/OstrTypes.h"

namespace OstrTypes {

void registerTypes()
{
    // Queued connections look the type up by this exact name, so the alias is registered
    // explicitly; repeating the call is harmless.
    qRegisterMetaType<OstrTypes::E_LinkType>("OstrTypes::E_LinkType");
}

} // namespace OstrTypes
