"""The RP's side of ipsec_cpa: `wire` (the bytes), `link` (the RP's UDP end),
`report` (the counter report), `segment` (a fast-path segment for tests and
demonstrations), `commands` (the cpa-rp command line)."""
