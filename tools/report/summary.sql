-- The --summary table from stall_ward_report --jsonl's lines. In sqlite3 (its JSON functions):
-- the lines of incidents.jsonl, in the current folder, as a view; in DuckDB the view is
-- read_json_auto('incidents.jsonl'), in BigQuery the lines loaded as NEWLINE_DELIMITED_JSON; the
-- SELECT after it is the same in all three.
CREATE TEMP VIEW incidents AS
SELECT json_extract(value, '$.device') AS device, json_extract(value, '$.build') AS build,
       json_extract(value, '$.seen') AS seen, json_extract(value, '$.process') AS process,
       json_extract(value, '$.thread') AS thread, json_extract(value, '$.state') AS state,
       json_extract(value, '$.frames') AS frames, json_extract(value, '$.blocker') AS blocker,
       json_extract(value, '$.culprit') AS culprit, json_extract(value, '$.signature') AS signature
FROM json_each('[' || replace(rtrim(CAST(readfile('incidents.jsonl') AS TEXT), char(10)),
                              char(10), ',') || ']');

-- Victims that share a culprit share a signature: the row shows the first of them in order.
WITH counts AS (
  SELECT signature, COUNT(*) AS count, COUNT(DISTINCT device) AS devices,
         COUNT(DISTINCT build) AS builds, COALESCE(MIN(CASE WHEN substr(seen, 5, 1) = '-' THEN seen END), MIN(seen)) AS first_seen,
         COALESCE(MAX(CASE WHEN substr(seen, 5, 1) = '-' THEN seen END), MAX(seen)) AS last_seen
  FROM incidents GROUP BY signature),
firsts AS (
  SELECT signature, process, thread, state, frames, blocker, culprit,
         ROW_NUMBER() OVER (PARTITION BY signature
                            ORDER BY process, thread, state, frames, blocker) AS n
  FROM incidents)
SELECT count, devices, builds, first_seen, last_seen, process, thread, state, frames, blocker,
       culprit, c.signature AS signature
FROM counts c JOIN firsts f ON f.signature = c.signature AND f.n = 1
ORDER BY count DESC, c.signature;
