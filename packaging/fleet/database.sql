-- The fleet's database and its roles: as the superuser, psql -f database.sql, then \password fleet_hub

create role fleet_hub login;
-- For those who read what the devices sent: grant fleet_reader to SOMEBODY
create role fleet_reader;

create database fleet owner fleet_hub;
\connect fleet
revoke all on database fleet from public;
grant connect on database fleet to fleet_reader;

-- The hub makes the schemas "fleet" and "data" itself.
alter default privileges for role fleet_hub grant usage on schemas to fleet_reader;
alter default privileges for role fleet_hub grant select on tables to fleet_reader;
