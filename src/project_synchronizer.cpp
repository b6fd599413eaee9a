#include <connection/project_synchronizer.h>

namespace RK {

ProjectSynchronizer::ProjectSynchronizer(QObject *parent) : QObject(parent) { }

ProjectSynchronizer::~ProjectSynchronizer() = default;

} // namespace RK
