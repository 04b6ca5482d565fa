#include "support/RunExample.h"

#include <utils/TempDir.h>

#include <gmock/gmock.h>

#include <H5Cpp.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace Halden::Tavro::Examples
{

namespace
{

using namespace TestSupport;
using namespace testing;

class RecordHdf5Test : public Test
{
protected:
    Utils::TempDir const directory{"RecordHdf5Test-", std::filesystem::temp_directory_path()};
    std::string const path = directory.path() + "/load.h5";
};

std::vector<double> column(std::string const& path, char const* name)
{
    H5::DataSet const samples = H5::H5File(path, H5F_ACC_RDONLY).openDataSet("samples");
    H5::CompType member(sizeof(double));
    member.insertMember(name, 0, H5::PredType::NATIVE_DOUBLE);
    std::vector<double> values(static_cast<std::size_t>(samples.getSpace().getSimpleExtentNpoints()));
    samples.read(values.data(), member);
    return values;
}

TEST_F(RecordHdf5Test, FileHoldsEachSampleInTheOrderOfTime)
{
    auto const result = runExample(RECORD_HDF5, {path, "--samples", "30", "--period", "10"});

    EXPECT_EQ(result.exitCode, 0) << result.output;
    auto const seconds = column(path, "seconds");
    EXPECT_THAT(seconds, SizeIs(30));
    EXPECT_GE(seconds.front(), 0.0);
    EXPECT_GE(seconds.back(), 29 * 0.010);
    EXPECT_EQ(std::adjacent_find(seconds.begin(), seconds.end(), std::greater_equal<>()), seconds.end());
    EXPECT_THAT(column(path, "load"), AllOf(SizeIs(30), Each(Ge(0.0))));
}

TEST_F(RecordHdf5Test, ReaderSeesTheFileGrow)
{
    auto const result = runExample(RECORD_HDF5, {path, "--samples", "30", "--period", "10"});

    EXPECT_EQ(result.exitCode, 0) << result.output;
    EXPECT_THAT(result.output, MatchesRegex("([0-9]+ samples, the load is [0-9.e-]+ on average\n)+"));
    EXPECT_THAT(result.output, HasSubstr("\n30 samples, ")); // so there is a line before
}

TEST_F(RecordHdf5Test, FileThatCannotBeWrittenIsNamedWithTheReason)
{
    auto const missing = runExample(RECORD_HDF5, {"/nowhere/load.h5"});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_EQ(missing.output, "record_hdf5: /nowhere/load.h5: No such file or directory\n");

    H5::H5File const locked(path, H5F_ACC_TRUNC);
    auto const other = runExample(RECORD_HDF5, {path});
    EXPECT_EQ(other.exitCode, 1);
    EXPECT_EQ(other.output, "record_hdf5: " + path + ": unable to lock file: Resource temporarily unavailable\n");

    auto const full = runExample(RECORD_HDF5, {"/dev/full"}, {{}, {{"LSAN_OPTIONS", HDF5_SUPPRESSIONS}}});
    EXPECT_EQ(full.exitCode, 1);
    EXPECT_EQ(full.output, "record_hdf5: /dev/full: file write failed: No space left on device\n");
}

TEST_F(RecordHdf5Test, BadOptionsEndItWithASentenceAndStatusTwo)
{
    expectRefusal(RECORD_HDF5, {{{}, "FILE"},
                                {{path, "--samples", "0"}, "--samples"},
                                {{path, "--period", "soon"}, "--period"},
                                {{path, "--speed"}, "--speed"}});
}

TEST_F(RecordHdf5Test, VersionIsThatOfTheLibrary)
{
    expectVersion(RECORD_HDF5);
}

TEST_F(RecordHdf5Test, StandardOutputThatCannotBeWrittenIsAnError)
{
    expectComplaintAboutFullOutput(RECORD_HDF5, {path, "--samples", "1"});
}

}

}
