#include "cellfinding/DiffVector2D.h"

DiffVector2D::DiffVector2D(double x, double y) : DiffVector(x, y) {}

DiffVector2D::~DiffVector2D() = default;
