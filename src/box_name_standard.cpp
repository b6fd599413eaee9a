#include <connection/box_name_standard.h>

const QString BoxNameStandard::a_pathSeparator = QStringLiteral("__");
const QString BoxNameStandard::a_inputMethodPrefix = QStringLiteral("onInput_");
