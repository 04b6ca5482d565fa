#include "Recording.h"

#include "../support/Hdf5Work.h"

#include <cstdint>
#include <vector>

namespace DeviceService
{

namespace
{

struct Row
{
    double due;
    double start;
    double end;
    std::uint8_t failed;
};

H5::CompType rowType()
{
    H5::CompType row(sizeof(Row));
    row.insertMember("due", HOFFSET(Row, due), H5::PredType::NATIVE_DOUBLE);
    row.insertMember("start", HOFFSET(Row, start), H5::PredType::NATIVE_DOUBLE);
    row.insertMember("end", HOFFSET(Row, end), H5::PredType::NATIVE_DOUBLE);
    row.insertMember("failed", HOFFSET(Row, failed), H5::PredType::NATIVE_UINT8);
    return row;
}

std::vector<Row> toRows(std::vector<Run> const& runs, Clock::time_point begin)
{
    auto const seconds = [begin](Clock::time_point time)
    { return std::chrono::duration<double>(time - begin).count(); };
    std::vector<Row> rows;
    rows.reserve(runs.size());
    for (Run const& run : runs)
    {
        rows.push_back({seconds(run.due), seconds(run.start), seconds(run.end), static_cast<std::uint8_t>(run.failed)});
    }
    return rows;
}

}

void createRecording(std::string const& path)
{
    doHdf5Work(path, [&path] { H5::H5File const file(path, H5F_ACC_TRUNC); });
}

void writeRecording(std::string const& path, std::list<JobRecord> const& records, Clock::time_point begin)
{
    doHdf5Work(
        path,
        [&]
        {
            H5::H5File const file(path, H5F_ACC_RDWR);
            for (JobRecord const& record : records)
            {
                auto const rows = toRows(record.runs(), begin);
                hsize_t const count = rows.size();
                file.createDataSet(record.name(), rowType(), H5::DataSpace(1, &count)).write(rows.data(), rowType());
            }
        });
}

}
