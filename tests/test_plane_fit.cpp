// The plane fit and the closed-form eigen solver, against hand-made point sets and against Eigen's
// iterative solver as an independent reference.
#include <Eigen/Dense>

#include "PlaneFit.h"
#include "TestSupport.h"

using namespace SurfaceReconstruction;

namespace {

void fit(const std::vector<std::array<float, 3>>& points, const float reference[3], float normal[3]) {
    MomentSums sums{};
    for (const auto& p : points) accumulateCovariance(p.data(), sums);
    fitPlaneNormal(sums, static_cast<int>(points.size()), reference, normal);
}

}  // namespace

TEST(PlaneFit, DegenerateAndFlatSetsGiveTheAxisTheReferenceAsksFor) {
    std::vector<std::array<float, 3>> flat;
    for (int i = -3; i <= 3; ++i)
        for (int j = -2; j <= 2; ++j) flat.push_back({0.3f * i + 0.05f * j, 0.2f * j, 0.0f});
    const std::vector<std::array<float, 3>> same(5, {1.5f, -2.0f, 0.25f});
    const std::vector<std::array<float, 3>> isotropic = {{1, 0, 0},  {-1, 0, 0}, {0, 1, 0},
                                                         {0, -1, 0}, {0, 0, 1},  {0, 0, -1}};
    const struct {
        const char* name;
        const std::vector<std::array<float, 3>>& points;
        std::array<float, 3> reference, normal;
        float tolerance;
    } rows[] = {
        {"a flat set, reference up", flat, {0.1f, 0.2f, 1.0f}, {0, 0, 1}, 1e-6f},
        {"a flat set, reference down", flat, {0.0f, 0.0f, -2.0f}, {0, 0, -1}, 1e-6f},
        {"equal points give the first axis", same, {0.5f, 0.5f, 0.5f}, {1, 0, 0}, 0.0f},
        {"equal points, reference behind", same, {-0.1f, 0.0f, 0.0f}, {-1, 0, 0}, 0.0f},
        // A dot product of exactly zero leaves the solver's sign.
        {"equal points, orthogonal reference", same, {0.0f, 1.0f, 1.0f}, {1, 0, 0}, 0.0f},
        {"an isotropic set gives the first axis", isotropic, {1, 0, 0}, {1, 0, 0}, 0.0f},
    };
    for (const auto& row : rows) {
        float normal[3];
        fit(row.points, row.reference.data(), normal);
        for (int k = 0; k < 3; ++k) EXPECT_NEAR(normal[k], row.normal[k], row.tolerance) << row.name << ", axis " << k;
    }
}

TEST(PlaneFit, CollinearSetGivesAVectorOrthogonalToTheLine) {
    std::vector<std::array<float, 3>> points;
    const float dir[3] = {0.6f, 0.0f, 0.8f};
    for (int i = -4; i <= 4; ++i) points.push_back({dir[0] * i, dir[1] * i, dir[2] * i});
    float normal[3];
    const float reference[3] = {0, 1, 0};
    fit(points, reference, normal);
    EXPECT_NEAR(normal[0] * dir[0] + normal[1] * dir[1] + normal[2] * dir[2], 0.0f, 1e-5f);
    EXPECT_NEAR(normal[0] * normal[0] + normal[1] * normal[1] + normal[2] * normal[2], 1.0f, 1e-5f);
}

TEST(PlaneFit, OrthogonalUnitSwitchesFormNearTheZAxis) {
    double out[3];
    const double near_z[3] = {1e-6, -1e-6, 1.0};  // within 1e-5 of |z|
    orthogonalUnit(near_z, out);
    EXPECT_EQ(out[0], 0.0);
    EXPECT_NEAR(out[1], -1.0, 1e-9);
    EXPECT_NEAR(out[2], -1e-6, 1e-9);
    const double outside[3] = {2e-5, 0.0, 1.0};
    orthogonalUnit(outside, out);
    EXPECT_EQ(out[2], 0.0);
    EXPECT_NEAR(out[1], 1.0, 1e-9);
    for (const double* v : {near_z, outside}) {
        orthogonalUnit(v, out);
        EXPECT_NEAR(out[0] * v[0] + out[1] * v[1] + out[2] * v[2], 0.0, 1e-12);
    }
}

// The solver serves covariance matrices: symmetric and positive semi-definite.
TEST(EigenSolver, AgreesWithAnIterativeReferenceOnRandomCovariances) {
    std::mt19937 rng(17);
    std::uniform_real_distribution<double> entry(-3.0, 3.0);
    std::uniform_real_distribution<double> scale_exp(-6.0, 6.0);
    int compared_vectors = 0;
    double worst = 0.0;
    for (int trial = 0; trial < 2000; ++trial) {
        const double scale = std::pow(10.0, scale_exp(rng));
        Eigen::Matrix3d reference = Eigen::Matrix3d::Zero();
        for (int sample = 0; sample < 3 + trial % 5; ++sample) {
            const Eigen::Vector3d v(entry(rng), entry(rng), entry(rng) * (trial % 3 == 0 ? 0.01 : 1.0));
            reference += v * v.transpose() * scale;
        }
        double matrix[9];
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) matrix[3 * i + j] = reference(i, j);
        double vectors[3][3], values[3];
        solveSymmetricEigen3(matrix, vectors, values);

        const Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d> solver(reference);
        const Eigen::Vector3d expected = solver.eigenvalues();
        const double norm = reference.cwiseAbs().maxCoeff();
        // The root formula runs its angle in single precision: values agree to 5e-5 of the largest entry (1.5e-5 seen).
        for (int k = 0; k < 3; ++k) {
            worst = std::max(worst, std::fabs(values[k] - expected(k)) / norm);
            ASSERT_NEAR(values[k], expected(k), 5e-5 * norm) << "trial " << trial;
        }
        ASSERT_LE(values[0], values[1]);
        ASSERT_LE(values[1], values[2]);

        // The vector of the smallest value, where it is well separated from the next.
        if (expected(1) - expected(0) > 1e-2 * norm) {
            const Eigen::Vector3d v(vectors[0][0], vectors[0][1], vectors[0][2]);
            EXPECT_NEAR(v.norm(), 1.0, 1e-9);
            EXPECT_GT(std::fabs(v.dot(solver.eigenvectors().col(0))), 1.0 - 1e-6) << "trial " << trial;
            ++compared_vectors;
        }
    }
    EXPECT_GT(compared_vectors, 1000);
    std::printf("largest eigenvalue deviation: %.3g of the largest entry\n", worst);
}

TEST(EigenSolver, ZeroAndSingularMatrices) {
    double vectors[3][3], values[3];
    const double zero[9] = {};
    solveSymmetricEigen3(zero, vectors, values);
    EXPECT_EQ(values[0], 0.0);
    EXPECT_EQ(values[2], 0.0);
    EXPECT_EQ(vectors[0][0], 1.0);
    // Rank one: a zero root, and the quadratic rule for the others.
    const double rank_one[9] = {4, 2, 0, 2, 1, 0, 0, 0, 0};
    solveSymmetricEigen3(rank_one, vectors, values);
    EXPECT_NEAR(values[0], 0.0, 1e-12);
    EXPECT_NEAR(values[1], 0.0, 1e-12);
    EXPECT_NEAR(values[2], 5.0, 1e-9);
    EXPECT_NEAR(vectors[2][0] * 1 + vectors[2][1] * 0.5, std::sqrt(1.25) * (vectors[2][0] > 0 ? 1 : -1), 1e-6);
}
