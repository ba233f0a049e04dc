/// \file
/// A lattice in the space of its Selling scalars, and how far two lattices are from one another.
#pragma once

#include <Eigen/Core>
#include <array>
#include <vector>

namespace vrk {

/// The conventional cell of a crystal.
struct CrystalCell {
    std::array<double, 6> cell{};  ///< a, b, c in Angstrom, alpha, beta, gamma in degrees
    char centring = 'P';           ///< P A B C I F R; R is obverse, primitive with other axes than hexagonal
};

/// How the difference of two points of S6 is measured.
enum class CellMetric {
    /// The strain that takes one lattice to the other, about the largest relative change of a length in any
    /// direction: sqrt(sum sinh^2 e) over the principal logarithmic strains e. It has no unit, and a short
    /// edge counts as much as a long one.
    Strain,
    /// The Euclidean length of the difference of the six scalars, square Angstrom. The longest edge decides.
    S6
};

/// The primitive lattice of a cell, Selling reduced: four vectors with the sum zero (a superbase) whose six
/// scalar products are not positive. These are the point of S6 of L. C. Andrews, H. J. Bernstein and N. K.
/// Sauter, Acta Cryst. A 75 (2019) 115, doi:10.1107/S2053273318015413.
///
/// Where a scalar is near zero, lattices that hardly differ may have reduced points that are far apart. As in
/// their distance (Acta Cryst. A 75 (2019) 593, doi:10.1107/S2053273319002729) a point is therefore compared
/// with the 24 reflections (the orders of the four vectors) of the other and of its images beyond every such
/// border, and beyond the borders of those.
class ReducedCell {
public:
    /// Throws Failure (usage) for parameters that span no lattice.
    explicit ReducedCell(const CrystalCell& cell);

    /// \name Which change with the lattice no faster than the strain
    /// @{
    /// Logarithms of the lengths of three shortest vectors.
    const std::array<double, 3>& logLengths() const { return m_logLengths; }
    double logVolume() const { return m_logVolume; }
    /// @}

    /// The same both ways; exact for lattices that differ by less than 0.07, never less than the true
    /// distance beyond.
    double distance(const ReducedCell& other, CellMetric metric = CellMetric::Strain) const;
    /// No distance in strain is below this, which costs next to nothing.
    double leastStrain(const ReducedCell& other) const;

    /// A base of another lattice that is nearly the conventional base of this one.
    struct Match {
        /// Vectors as columns: the base is the other's conventional base times this; h k l (a row) of the
        /// other become h k l times this. Right-handed; entries are multiples of 1/6.
        Eigen::Matrix3d base;
        double strain = 0;
    };
    /// All such bases with a strain of at most \p most (0.07 or less), the closest first, of equally close
    /// ones that with the largest trace: the identity for the same cell. They are as many as the lattice has
    /// rotations, more precisely those that hold within the tolerance.
    std::vector<Match> matches(const ReducedCell& other, double most) const;

private:
    static constexpr std::size_t kScalars = 6;
    static constexpr std::size_t kOrders = 24;
    using Scalars = std::array<double, kScalars>;

    /// Four vectors with the sum zero. With F the map that takes the vectors of one superbase to those of
    /// another, the squared strain is made of the traces of F^T F and its inverse; each is a scalar product
    /// of the Selling scalars of one with the dual numbers of the other.
    struct Superbase {
        Eigen::Matrix<double, 3, 4> coordinates;  ///< in the conventional base
        Scalars scalars;
        Scalars dual;  ///< minus squared lengths of differences of the vectors' reciprocals
    };
    struct Ordered {
        std::array<std::array<double, kOrders>, kScalars> scalars, dual;
    };

    Superbase superbaseOf(const Eigen::Matrix<double, 3, 4>& coordinates) const;
    Eigen::Matrix<double, 3, 4> reduced(const Eigen::Matrix3d& primitive) const;
    void findImages();
    void findInvariants();
    static Ordered allOrders(const Superbase& superbase);
    /// Of the reduced superbase in all orders to one of the other's images; squared.
    std::array<double, kOrders> squares(const Superbase& image, CellMetric metric) const;

    Eigen::Matrix3d m_base;           ///< conventional vectors as columns, Angstrom
    std::vector<Superbase> m_images;  ///< the reduced one first
    Ordered m_ordered;
    std::array<double, 3> m_logLengths{};
    double m_logVolume = 0;
};

}  // namespace vrk
